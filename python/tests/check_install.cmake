# Installs the build into a scratch prefix and runs the installed module there with nothing
# but PYTHONPATH: it must find its library and the default model by itself.
# Usage: cmake -DBUILD_DIR=.. -DWORK_DIR=.. -DPYTHON=.. -DSITE=<relative> -DSAMPLE=.. -P check_install.cmake
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}
                RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed: ${err}")
endif()
execute_process(
  COMMAND env -i PATH=/usr/bin:/bin PYTHONPATH=${WORK_DIR}/${SITE} ${PYTHON} -c
          "import artifact_detector as ad; print(ad.Detector().detect_file('${SAMPLE}').status)"
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT out STREQUAL "analysed\n")
  message(FATAL_ERROR "the installed module printed '${out}':\n${err}")
endif()
