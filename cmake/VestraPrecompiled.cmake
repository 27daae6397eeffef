# The large headers are parsed once, not once in every source: half the time of a build goes into them otherwise. Sources include
# what they use all the same, and -DVESTRA_PRECOMPILED=OFF builds without.
#
# vestra_precompiled(NAME LIBS target... HEADERS header...)   makes a set of headers; LIBS: what the headers come with
# vestra_use_precompiled(NAME target...)                      the targets read them from there
option(VESTRA_PRECOMPILED "Parse the large headers once" ON)

function(vestra_precompiled name)
  cmake_parse_arguments(P "" "" "LIBS;HEADERS" ${ARGN})
  set(source ${PROJECT_BINARY_DIR}/${name}.cpp)
  file(WRITE ${source} "")
  add_library(${name} OBJECT ${source})
  target_link_libraries(${name} PRIVATE vestra_compile Threads::Threads ${P_LIBS})
  target_precompile_headers(${name} PRIVATE ${P_HEADERS})
endfunction()

function(vestra_use_precompiled name)
  if(VESTRA_PRECOMPILED)
    foreach(target ${ARGN})
      target_precompile_headers(${target} REUSE_FROM ${name})
    endforeach()
  endif()
endfunction()
