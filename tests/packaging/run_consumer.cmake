# cmake -P script behind the packaging.consumer test; see CMakeLists.txt here.
cmake_minimum_required(VERSION 3.25)

if(NOT EXISTS "${LIBRARY_FILE}")
  message(FATAL_ERROR "${LIBRARY_FILE} does not exist: build the project before running ctest")
endif()

set(prefix "${WORK_DIR}/prefix")
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")

function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ECHO STDOUT COMMAND_ERROR_IS_FATAL ANY)
endfunction()

run("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}")

# The libdir is lib or lib/<multiarch> depending on the host; the .pc file
# sits in <libdir>/pkgconfig either way.
file(GLOB_RECURSE pc_files "${prefix}/*/SystemWrappers.pc")
list(LENGTH pc_files pc_count)
if(NOT pc_count EQUAL 1)
  message(FATAL_ERROR "expected one installed SystemWrappers.pc, found: ${pc_files}")
endif()
get_filename_component(pc_dir "${pc_files}" DIRECTORY)
get_filename_component(libdir "${pc_dir}" DIRECTORY)

# (a) A separate CMake project using find_package().
set(cmake_build "${WORK_DIR}/cmake-consumer")
set(generator_args -G "${GENERATOR}")
if(MAKE_PROGRAM)
  list(APPEND generator_args "-DCMAKE_MAKE_PROGRAM=${MAKE_PROGRAM}")
endif()
run("${CMAKE_COMMAND}" -S "${SOURCE_DIR}" -B "${cmake_build}" ${generator_args}
  "-DCMAKE_BUILD_TYPE=${BUILD_TYPE}"
  "-DCMAKE_CXX_COMPILER=${CXX}"
  "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
  "-DCMAKE_EXE_LINKER_FLAGS=${EXE_LINKER_FLAGS}"
  "-DCMAKE_PREFIX_PATH=${prefix}"
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
# A copy found anywhere else (an older install under /usr/local, say) would
# make this test pass without looking at the prefix we just filled.
file(STRINGS "${cmake_build}/CMakeCache.txt" package_dir REGEX "^SystemWrappers_DIR:")
string(REGEX REPLACE "^[^=]*=" "" package_dir "${package_dir}")
cmake_path(IS_PREFIX prefix "${package_dir}" NORMALIZE found_in_prefix)
if(NOT found_in_prefix)
  message(FATAL_ERROR "find_package used ${package_dir}, not the copy in ${prefix}")
endif()
run("${CMAKE_COMMAND}" --build "${cmake_build}")

# (b) A plain compiler call with the flags pkg-config hands out.
set(ENV{PKG_CONFIG_PATH} "${pc_dir}")
execute_process(COMMAND pkg-config --cflags --libs SystemWrappers
  OUTPUT_VARIABLE pc_flags OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS}")
separate_arguments(link_flags UNIX_COMMAND "${EXE_LINKER_FLAGS}")
run("${CXX}" ${cxx_flags} -std=c++17 "${SOURCE_DIR}/consumer.cpp" ${pc_flags} ${link_flags}
  -o "${WORK_DIR}/consumer-pkgconfig")

# Nothing points the loader at the build tree, so a missing SONAME link in
# the prefix shows up as a program that cannot start.
set(ld_path "${libdir}")
if(DEFINED ENV{LD_LIBRARY_PATH} AND NOT "$ENV{LD_LIBRARY_PATH}" STREQUAL "")
  string(APPEND ld_path ":$ENV{LD_LIBRARY_PATH}")
endif()
foreach(exe "${cmake_build}/consumer" "${WORK_DIR}/consumer-pkgconfig")
  run("${CMAKE_COMMAND}" -E env "LD_LIBRARY_PATH=${ld_path}" "${exe}")
endforeach()
