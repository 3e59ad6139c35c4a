# Installs the build tree into a scratch prefix, then builds and runs the C
# consumer (examples/consumer) against it twice: through find_package(npucpu)
# and through pkg-config. Also checks the SONAME, the version file and that
# the command-line runner reads that file. Run by CTest:
#   cmake -DBUILD_DIR=... -DWORK_DIR=... -DCONSUMER_DIR=... -DC_COMPILER=...
#         -DVERSION=... -DSONAME=... -DSOURCE_DIR=... -P InstallConsumeTest.cmake
foreach(var BUILD_DIR WORK_DIR CONSUMER_DIR C_COMPILER VERSION SONAME SOURCE_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "InstallConsumeTest: ${var} not set")
  endif()
endforeach()

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(run_out "${out}" PARENT_SCOPE)
endfunction()

function(expect_equal what got want)
  if(NOT got STREQUAL want)
    message(FATAL_ERROR "${what}: got '${got}', expected '${want}'")
  endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# Layout: header, versioned library with SONAME, version file.
file(GLOB_RECURSE lib_files RELATIVE ${prefix} ${prefix}/*libnpucpu.so*)
file(GLOB_RECURSE pc_file ${prefix}/*/npucpu.pc)
if(NOT EXISTS ${prefix}/include/npucpu/npucpu.h OR NOT pc_file)
  message(FATAL_ERROR "header or npucpu.pc missing under ${prefix}")
endif()
get_filename_component(libdir ${pc_file} DIRECTORY)
get_filename_component(libdir ${libdir} DIRECTORY)
foreach(name libnpucpu.so ${SONAME} libnpucpu.so.${VERSION})
  if(NOT EXISTS ${libdir}/${name})
    message(FATAL_ERROR "${libdir}/${name} missing; installed: ${lib_files}")
  endif()
endforeach()
run("readelf" readelf -d ${libdir}/libnpucpu.so.${VERSION})
string(REGEX MATCH "Library soname: \\[([^]]*)\\]" _ "${run_out}")
expect_equal("SONAME" "${CMAKE_MATCH_1}" "${SONAME}")
file(READ ${prefix}/share/npucpu/npucpu-version.txt version_text)
expect_equal("installed version file" "${version_text}" "${VERSION}\n")

# Consumer 1: find_package(npucpu) and the imported target npucpu::npucpu.
run("configure consumer" ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/cmake-consumer
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_C_COMPILER=${C_COMPILER})
run("build consumer" ${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-consumer)
run("run consumer (find_package)" ${WORK_DIR}/cmake-consumer/consumer)
message(STATUS "find_package: ${run_out}")

# Consumer 2: pkg-config only, as a Makefile or a plain compiler call would.
set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
run("pkg-config --modversion" pkg-config --modversion npucpu)
string(STRIP "${run_out}" pc_version)
expect_equal("pkg-config version" "${pc_version}" "${VERSION}")
run("pkg-config --cflags --libs" pkg-config --cflags --libs npucpu)
separate_arguments(pc_flags UNIX_COMMAND "${run_out}")
run("compile consumer (pkg-config)" ${C_COMPILER} ${CONSUMER_DIR}/main.c ${pc_flags}
    -o ${WORK_DIR}/pc-consumer)
set(ENV{LD_LIBRARY_PATH} ${libdir})
run("run consumer (pkg-config)" ${WORK_DIR}/pc-consumer)
message(STATUS "pkg-config: ${run_out}")

# The command-line runner reports the version from the installed file.
set(ENV{PYTHONPATH} ${SOURCE_DIR}/python)
set(ENV{PYTHONDONTWRITEBYTECODE} 1)
set(ENV{NPUCPU_LIBRARY} ${libdir}/libnpucpu.so)
run("npucpu --version" /usr/bin/python3 -m npucpu --version)
string(STRIP "${run_out}" cli_version)
expect_equal("runner version" "${cli_version}" "npucpu ${VERSION}")
