# Installs the build into a scratch prefix, then builds and runs a consumer that knows only
# that prefix. Usage: cmake -DBUILD_DIR=.. -DSOURCE_DIR=.. -DWORK_DIR=.. -P check_install.cmake
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

set(expected
  lib/libArtifactDetector_v1.camera.korvane.so
  lib/libTarnlink.camera.korvane.so
  lib/cmake/ArtifactDetector/ArtifactDetectorConfig.cmake
  lib/pkgconfig/artifact_detector.pc
  include/artifact_detector/artifact_detector.h
  include/artifact_detector/artifact_detector_wrapper.h
  include/artifact_detector/utils/sys_utils.h
  include/artifact_detector/utils/image_utils.h
  include/artifact_detector/core/model_interface/dl_loader.h
  include/artifact_detector/core/model_interface/tarnlink_api.h
  include/artifact_detector/core/net/NNet.h
  include/artifact_detector/core/utils/image_utils.h
  include/artifact_detector/core/utils/logging.h
  include/artifact_detector/detector.h
  include/artifact_detector/detector_c.h
  include/artifact_detector/artifact_detector_version.h
  bin/artifact-detect)
if(DEFINED EXTRA_FILES)
  list(APPEND expected ${EXTRA_FILES})
endif()
foreach(f IN LISTS expected)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

run(readelf -d ${prefix}/lib/libArtifactDetector_v1.camera.korvane.so)
if(NOT last_output MATCHES "Library soname: \\[libArtifactDetector_v1\\.camera\\.korvane\\.so\\]")
  message(FATAL_ERROR "wrong SONAME:\n${last_output}")
endif()
if(NOT last_output MATCHES "Library runpath: \\[\\$ORIGIN")
  message(FATAL_ERROR "RUNPATH does not start with $ORIGIN:\n${last_output}")
endif()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/consumer -B ${WORK_DIR}/consumer
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
set(models ${prefix}/share/artifact_detector/models)
foreach(program consumer consumer_c)
  run(${WORK_DIR}/consumer/${program} ${models})
  if(NOT last_output MATCHES "consumer ok")
    message(FATAL_ERROR "${program} printed: ${last_output}")
  endif()
endforeach()

set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
run(pkg-config --cflags --libs artifact_detector)
string(REGEX MATCH "-I([^ ]+) " include_flag "${last_output}")
if(NOT EXISTS "${CMAKE_MATCH_1}/artifact_detector/artifact_detector.h")
  message(FATAL_ERROR "pkg-config include path does not hold the headers: ${last_output}")
endif()
separate_arguments(pc_flags UNIX_COMMAND "${last_output}")

# The same consumer built with nothing but pkg-config's flags.
run(c++ -std=c++17 ${SOURCE_DIR}/consumer/main.cpp -o ${WORK_DIR}/consumer_pc ${pc_flags}
    -Wl,-rpath,${prefix}/lib)
run(${WORK_DIR}/consumer_pc ${models})
if(NOT last_output MATCHES "consumer ok")
  message(FATAL_ERROR "pkg-config consumer printed: ${last_output}")
endif()

# Every installed header compiles on its own with the package's flags; the C ones as C too.
file(GLOB_RECURSE headers RELATIVE ${prefix}/include ${prefix}/include/*.h)
foreach(header IN LISTS headers)
  file(WRITE ${WORK_DIR}/alone.cpp "#include <${header}>\n")
  run(c++ -std=c++17 -Wall -Wextra -Werror -fsyntax-only ${WORK_DIR}/alone.cpp ${pc_flags})
endforeach()
foreach(header detector_c.h artifact_detector_version.h artifact_detector_wrapper.h)
  file(WRITE ${WORK_DIR}/alone.c "#include <artifact_detector/${header}>\n")
  run(cc -std=c11 -Wall -Wextra -Werror -fsyntax-only ${WORK_DIR}/alone.c ${pc_flags})
endforeach()
message(STATUS "installed tree usable")
