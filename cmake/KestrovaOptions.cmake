# Compiler settings shared by every target: kestrova_options carries the warnings, sanitizers and coverage counters.
find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

add_library(kestrova_options INTERFACE)
target_compile_features(kestrova_options INTERFACE cxx_std_23)
# A project that takes this one in compiles by its own rules.
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(kestrova_options INTERFACE -Wall -Wextra -Wpedantic -Werror -Wshadow -Wnon-virtual-dtor
                                                    -Woverloaded-virtual -Wcast-align -Wunused -Wnull-dereference)
endif()
if(PROJECT_IS_TOP_LEVEL AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 sees null dereferences and overlapping copies that are not there when it inlines the standard library.
  target_compile_options(kestrova_options INTERFACE -Wno-null-dereference -Wno-restrict -Wduplicated-cond -Wlogical-op)
endif()
# The standard library checks the bounds and preconditions of its own operations in debug builds.
target_compile_definitions(kestrova_options INTERFACE $<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)
target_include_directories(kestrova_options INTERFACE ${Kestrova_SOURCE_DIR}/src)

if(KESTROVA_SANITIZE)
  add_compile_options(-fsanitize=${KESTROVA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all -g)
  add_link_options(-fsanitize=${KESTROVA_SANITIZE})
endif()
if(KESTROVA_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

# What the shared library is made of shows only the names that the public headers mark (src/platform/Export.h).
function(kestrova_hide_names target)
  set_target_properties(${target} PROPERTIES C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# kestrova_room(NAME [DEPENDS target...]): a static library of every source in the current folder.
function(kestrova_room name)
  cmake_parse_arguments(ROOM "" "" "DEPENDS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS *.cpp)
  if(sources)
    add_library(${name} STATIC ${sources})
    target_link_libraries(${name} PUBLIC kestrova_options ${ROOM_DEPENDS})
    kestrova_hide_names(${name})
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE kestrova_options ${ROOM_DEPENDS})
  endif()
endfunction()
