# Warnings and sanitizers that everything of ours is built with; link `vestra_compile` to get them.
add_library(vestra_compile INTERFACE)
target_compile_options(vestra_compile INTERFACE -Wall -Wextra -Wshadow -Wconversion -Wformat=2)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # The log texts are literals with arguments by design; what this warns of beyond -Wformat=2 is their truncation by
  # snprintf into the fixed buffers, which is intended everywhere it happens.
  target_compile_options(vestra_compile INTERFACE -Wno-format-truncation -Wno-psabi)
endif()
if(VESTRA_WERROR)
  target_compile_options(vestra_compile INTERFACE -Werror)
endif()

# Only programs are linked from what is compiled here. The code of all is alike, so that they can share precompiled headers.
add_compile_options(-fPIE -pthread)
add_link_options(-pie)
# What ships is hardened; the sanitizers see more than these and want the functions as they are.
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong)
  add_link_options(-Wl,-z,relro,-z,now)
endif()

# A set has 32-bit file sizes and inodes otherwise, and a large or foreign file system would fail every stat.
add_compile_definitions(_FILE_OFFSET_BITS=64)

if(VESTRA_SANITIZE)
  add_compile_options(-fsanitize=${VESTRA_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VESTRA_SANITIZE})
  if(VESTRA_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
