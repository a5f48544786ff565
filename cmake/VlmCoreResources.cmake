# vlmcore_add_resources(<executable> <file.rc>...): resources that CResourceArchive finds in that executable.
#
# Windows: compiled and linked as the system has it. Elsewhere: compiled to a .res file, which becomes read-only data of
# the executable, and a note that tells the library where it lies; nothing has to be exported, and stripping keeps it.
# The resource compiler is LLVM's on both (packages llvm-19 and clang-19, for its preprocessor).

find_program(VLMCORE_RESOURCE_COMPILER NAMES llvm-windres-19 llvm-windres DOC "LLVM's windres")

function(vlmcore_add_resources target)
  if(NOT VLMCORE_RESOURCE_COMPILER)
    message(FATAL_ERROR "vlmcore_add_resources: no llvm-windres found")
  endif()
  foreach(file ${ARGN})
    get_filename_component(file ${file} ABSOLUTE)
    get_filename_component(folder ${file} DIRECTORY)
    get_filename_component(name ${file} NAME_WE)
    set(base ${CMAKE_CURRENT_BINARY_DIR}/${target}-${name})
    if(WIN32)
      set(output ${base}-resources.obj)
      set(format coff)
    else()
      set(output ${base}.res)
      set(format res)
    endif()
    # Whatever lies beside the .rc may be part of it.
    file(GLOB parts CONFIGURE_DEPENDS ${folder}/*)
    list(FILTER parts EXCLUDE REGEX "\\.(cpp|h|txt|cmake)$")
    add_custom_command(OUTPUT ${output}
      COMMAND ${VLMCORE_RESOURCE_COMPILER} --target=x86_64-w64-mingw32 -O ${format} -I ${folder} -i ${file} -o ${output}
      DEPENDS ${file} ${parts} VERBATIM)
    if(WIN32)
      set_source_files_properties(${output} PROPERTIES EXTERNAL_OBJECT TRUE GENERATED TRUE)
      target_sources(${target} PRIVATE ${output})
    else()
      set(VLMCORE_RESOURCE_FILE ${output})
      configure_file(${VLMCORE_RESOURCES_TEMPLATE} ${base}-resources.cpp @ONLY)
      set_source_files_properties(${base}-resources.cpp PROPERTIES OBJECT_DEPENDS ${output})
      target_sources(${target} PRIVATE ${base}-resources.cpp)
    endif()
  endforeach()
endfunction()

set(VLMCORE_RESOURCES_TEMPLATE ${CMAKE_CURRENT_LIST_DIR}/VlmCoreResources.cpp.in CACHE INTERNAL "")
