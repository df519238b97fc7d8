# Fails unless the library is named libTarnlink.camera.korvane.so and exports operations only
# (tarnlink_test looks up and calls each one). Usage: cmake -DLIB=<.so> -P check_exports.cmake
execute_process(COMMAND readelf -d ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT out MATCHES "Library soname: \\[libTarnlink\\.camera\\.korvane\\.so\\]")
  message(FATAL_ERROR "wrong or missing SONAME in ${LIB}:\n${out}")
endif()

execute_process(COMMAND nm -D --defined-only ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT out MATCHES " T TarnWrapper_create\n")
  message(FATAL_ERROR "nm failed on ${LIB}:\n${out}")
endif()
string(REPLACE "\n" ";" lines "${out}")
foreach(line IN LISTS lines)
  # "<address> <type> <name>"; absolute symbols (version nodes) have type A.
  if(line MATCHES "^[0-9a-f]+ [B-Za-z] " AND NOT line MATCHES " TarnWrapper_[A-Za-z_]+$")
    message(FATAL_ERROR "exported, not an operation: ${line}")
  endif()
endforeach()
