# The peers: the C runtime's malloc always; on Linux also jemalloc (static, its malloc family renamed, so that it does
# not replace the C runtime's) and mimalloc (loaded at run time), on Windows HeapAlloc.
find_package(Threads REQUIRED)
vlmcore_benchmark(memory Threads::Threads ${CMAKE_DL_LIBS})
target_sources(memory_bench PRIVATE memory_peers_${VLMCORE_PLATFORM}.cpp)
if(NOT WIN32)
  find_library(VLMCORE_JEMALLOC libjemalloc_pic.a)
  if(VLMCORE_JEMALLOC)
    set(renamed ${CMAKE_CURRENT_BINARY_DIR}/libpeer_jemalloc.a)
    set(renames "")
    foreach(symbol malloc calloc free realloc memalign posix_memalign aligned_alloc valloc malloc_usable_size)
      list(APPEND renames --redefine-sym ${symbol}=peer_jemalloc_${symbol})
    endforeach()
    foreach(symbol __libc_calloc __libc_free __libc_malloc __libc_memalign __libc_realloc __libc_valloc __posix_memalign)
      list(APPEND renames --redefine-sym ${symbol}=peer_jemalloc${symbol})
    endforeach()
    add_custom_command(OUTPUT ${renamed}
      COMMAND ${CMAKE_OBJCOPY} ${renames} ${VLMCORE_JEMALLOC} ${renamed}
      COMMAND ${CMAKE_AR} d ${renamed} jemalloc_cpp.pic.o # its operator new
      DEPENDS ${VLMCORE_JEMALLOC})
    add_custom_target(peer_jemalloc DEPENDS ${renamed})
    add_dependencies(memory_bench peer_jemalloc)
    target_link_libraries(memory_bench PRIVATE ${renamed} m)
    target_compile_definitions(memory_bench PRIVATE VLMCORE_HAVE_JEMALLOC)
  else()
    message(STATUS "jemalloc not found: the memory benchmark runs without it (Debian: libjemalloc-dev)")
  endif()
endif()
