# Settings that every target of this project shares.

if(PROJECT_IS_TOP_LEVEL)
  # Programs and libraries of one build lie side by side, as Windows needs them.
  set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
  set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
  set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
  set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
  find_program(VLMCORE_CCACHE ccache)
  if(VLMCORE_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_C_COMPILER_LAUNCHER ${VLMCORE_CCACHE})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${VLMCORE_CCACHE})
  endif()
endif()

# The room of the platform seam that this build uses.
if(WIN32)
  set(VLMCORE_PLATFORM windows)
else()
  set(VLMCORE_PLATFORM posix)
endif()

# vlmcore_setup(<target>): language level, warnings, sanitizers, debug information.
function(vlmcore_setup target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  if(NOT MSVC)
    target_compile_options(${target} PRIVATE -g -fno-omit-frame-pointer
      -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wold-style-cast -Woverloaded-virtual
      -Wnon-virtual-dtor -Wextra-semi -Wimplicit-fallthrough -Wundef -Wcast-qual -Wformat=2 -Wno-format-nonliteral)
    if(VLMCORE_WARNINGS_AS_ERRORS)
      target_compile_options(${target} PRIVATE -Werror)
    endif()
  endif()
  if(WIN32 AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -gcodeview -fms-extensions -Wno-language-extension-token)
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "SHARED_LIBRARY" OR type STREQUAL "EXECUTABLE" OR type STREQUAL "MODULE_LIBRARY")
      target_link_options(${target} PRIVATE -Wl,--pdb=${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/$<TARGET_FILE_BASE_NAME:${target}>.pdb)
    endif()
  endif()
  if(VLMCORE_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${VLMCORE_SANITIZE} -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${VLMCORE_SANITIZE})
  endif()
endfunction()
