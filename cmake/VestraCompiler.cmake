# Warnings and sanitizers for all our targets. Link `vestra_compile` to get them.
add_library(vestra_compile INTERFACE)
target_compile_options(vestra_compile INTERFACE -Wall -Wextra -Wshadow -Wconversion -Wformat=2)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # -Wformat-truncation warns where snprintf may truncate a text to a fixed buffer. That is intended everywhere.
  target_compile_options(vestra_compile INTERFACE -Wno-format-truncation -Wno-psabi)
endif()
if(VESTRA_WERROR)
  target_compile_options(vestra_compile INTERFACE -Werror)
endif()

# Everything but the shared libraries is compiled for executables, with the same options, so that targets can share precompiled
# headers.
add_compile_options($<IF:$<BOOL:$<TARGET_PROPERTY:POSITION_INDEPENDENT_CODE>>,-fPIC,-fPIE> -pthread)
add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>)
# Paths of the build tree come after LD_LIBRARY_PATH: a simulated set has its own platform library.
add_link_options(-Wl,--enable-new-dtags)
# Release builds are hardened. Sanitizer builds are not: the sanitizers check more, and need the plain functions.
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
  add_link_options(-Wl,-z,relro,-z,now)
endif()

# Without this, file sizes and inode numbers have 32 bits on a set, and stat fails on large or foreign file systems.
add_compile_definitions(_FILE_OFFSET_BITS=64)

if(VESTRA_SANITIZE)
  add_compile_options(-fsanitize=${VESTRA_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VESTRA_SANITIZE})
  if(VESTRA_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
