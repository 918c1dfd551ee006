# Warnings, sanitizers and the optional compiler cache, for every target of the project.

add_library(ostrel_warnings INTERFACE)
target_compile_options(ostrel_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta>)

if(OSTREL_SANITIZE)
  add_compile_options(-fsanitize=${OSTREL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${OSTREL_SANITIZE})
endif()
if(OSTREL_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

find_program(OSTREL_CCACHE ccache)
if(OSTREL_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${OSTREL_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${OSTREL_CCACHE})
endif()
