# Floors: static targets that may link only to the floors below them.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

find_program(KIV_CCACHE ccache)
if(KIV_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${KIV_CCACHE}")
  set(CMAKE_C_COMPILER_LAUNCHER "${KIV_CCACHE}")
endif()

# Warnings and sanitizers that every target of this tree is built with.
add_library(kiv_options INTERFACE)
target_compile_options(kiv_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  $<$<BOOL:${KIV_WERROR}>:-Werror>)
target_include_directories(kiv_options INTERFACE $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}>)
if(KIV_SANITIZE)
  list(JOIN KIV_SANITIZE "," kiv_sanitize_list)
  # The check of virtual tables needs a descriptor, and tests use them all up.
  target_compile_options(kiv_options INTERFACE -fsanitize=${kiv_sanitize_list} -fno-sanitize=vptr
    -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(kiv_options INTERFACE -fsanitize=${kiv_sanitize_list})
endif()

# kiv_add_floor(<name> SOURCES ... [LINKS ...])
#
# A static library of one floor and, in plain builds, a check that everything
# it needs is found on the floors that it names: an arrow upwards does not link.
function(kiv_add_floor name)
  cmake_parse_arguments(FLOOR "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} STATIC ${FLOOR_SOURCES})
  target_link_libraries(${name} PRIVATE kiv_options PUBLIC ${FLOOR_LINKS} Threads::Threads)
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  set_property(GLOBAL APPEND PROPERTY KIV_FLOORS ${name})
  if(NOT KIV_SANITIZE)
    add_executable(floor_${name} "${PROJECT_SOURCE_DIR}/cmake/FloorCheck.cpp")
    target_link_libraries(floor_${name} PRIVATE kiv_options
      -Wl,--whole-archive $<TARGET_FILE:${name}> -Wl,--no-whole-archive ${FLOOR_LINKS} Threads::Threads)
    add_dependencies(floor_${name} ${name})
    set_target_properties(floor_${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/floors")
  endif()
endfunction()
