# See CMakeLists.txt for the variables. Every step ends the script when it fails.
cmake_policy(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGV} OUTPUT_VARIABLE output ERROR_VARIABLE errors RESULT_VARIABLE result)
  if(NOT result STREQUAL "0")
    list(JOIN ARGV " " command)
    message(FATAL_ERROR "${command}\nended with ${result}\n${output}${errors}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

# The programs keep their data here.
set(ENV{XDG_DATA_HOME} "${SCRATCH}/data")
set(ENV{XDG_CONFIG_HOME} "${SCRATCH}/config")
set(ENV{XDG_STATE_HOME} "${SCRATCH}/state")
foreach(variable LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH)
  unset(ENV{${variable}})
endforeach()

set(expected "version 2.2.1.5\nblank key 0\nkey 1\nagain 0\ncaught reason\nhandler 1\n")
function(run_consumer)
  run(${ARGV})
  if(NOT output STREQUAL expected)
    message(FATAL_ERROR "${ARGV} wrote\n${output}instead of\n${expected}")
  endif()
endfunction()

file(REMOVE_RECURSE "${SCRATCH}")
run("${CMAKE_COMMAND}" --install "${BUILD}" --prefix "${SCRATCH}/first")
file(RENAME "${SCRATCH}/first" "${SCRATCH}/moved")
set(prefix "${SCRATCH}/moved")

# What names a path of this build works on no other machine.
file(GLOB_RECURSE texts "${prefix}/${LIBDIR}/*.cmake" "${prefix}/${LIBDIR}/*.pc")
foreach(text IN LISTS texts)
  file(STRINGS "${text}" lines)
  foreach(folder "${SOURCE}" "${SCRATCH}")
    string(FIND "${lines}" "${folder}" position)
    if(NOT position EQUAL -1)
      message(FATAL_ERROR "${text} names ${folder}")
    endif()
  endforeach()
endforeach()

# The CMake package, shared and static.
run("${CMAKE_COMMAND}" -S "${CONSUMER}" -B "${SCRATCH}/consumer" -G Ninja
  "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_COMPILER=${CXX}" "-DWANTED_VERSION=${VERSION}")
run("${CMAKE_COMMAND}" --build "${SCRATCH}/consumer")
run_consumer("${SCRATCH}/consumer/with_kiv")
run_consumer("${SCRATCH}/consumer/with_kiv_static")

# pkg-config.
set(ENV{PKG_CONFIG_PATH} "${prefix}/${LIBDIR}/pkgconfig")
run("${PKG_CONFIG}" --cflags --libs kiv)
separate_arguments(flags UNIX_COMMAND "${output}")
run("${CXX}" -std=c++17 "${CONSUMER}/main.cpp" -o "${SCRATCH}/with_pkg_config" ${flags}
  "-Wl,-rpath,${prefix}/${LIBDIR}")
run_consumer("${SCRATCH}/with_pkg_config")

# The shared library shows its public classes and nothing else: what else it exported would
# take the place of a program's own.
run("${NM}" -D --defined-only --extern-only --demangle "${prefix}/${LIBDIR}/libkiv.so")
string(REPLACE "\n" ";" symbols "${output}")
set(strays "")
foreach(symbol IN LISTS symbols)
  string(REGEX REPLACE "^[0-9a-f]* [A-Za-z] " "" name "${symbol}")
  if(NOT name MATCHES "^((typeinfo|typeinfo name|vtable) for )?(CrashReporter|NSException)(::|$)"
      AND NOT name MATCHES "^NS[SG]etUncaughtExceptionHandler\\("
      AND NOT name MATCHES "^(pthread_create|kiv_note_throw)$"
      AND NOT name STREQUAL "")
    string(APPEND strays "  ${name}\n")
  endif()
endforeach()
if(strays)
  message(FATAL_ERROR "libkiv.so exports what is not public:\n${strays}")
endif()
if(NOT output MATCHES "CrashReporter::sharedInstance")
  message(FATAL_ERROR "libkiv.so does not export CrashReporter:\n${output}")
endif()

if(SHELL_INSTALLED)
  run("${prefix}/bin/ovalyn" --help)
endif()
