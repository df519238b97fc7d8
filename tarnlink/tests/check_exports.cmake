# Fails unless the library is named libTarnlink.camera.korvane.so and exports exactly the
# operation table. Usage: cmake -DLIB=<path to .so> -P check_exports.cmake
set(operations
  TarnWrapper_create TarnWrapper_destroy TarnWrapper_openDLModel TarnWrapper_openDLModel_direct
  TarnWrapper_openDLModel_direct_latency TarnWrapper_openDLModel_zephOptions
  TarnWrapper_getInputDimens TarnWrapper_getInputChannels TarnWrapper_execute
  TarnWrapper_getLayerOutput TarnWrapper_getLayerOutputAndFormat TarnWrapper_setChannelMeans)

execute_process(COMMAND readelf -d ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0 OR NOT out MATCHES "Library soname: \\[libTarnlink\\.camera\\.korvane\\.so\\]")
  message(FATAL_ERROR "wrong or missing SONAME in ${LIB}:\n${out}")
endif()

execute_process(COMMAND nm -D --defined-only ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REPLACE "\n" ";" lines "${out}")
set(exported "")
foreach(line IN LISTS lines)
  # "<address> <type> <name>"; absolute symbols (version nodes) have type A.
  if(line MATCHES "^[0-9a-f]+ ([A-Za-z]) (.+)$" AND NOT CMAKE_MATCH_1 STREQUAL "A")
    list(APPEND exported "${CMAKE_MATCH_2}")
  endif()
endforeach()
list(SORT exported)
list(SORT operations)
if(NOT exported STREQUAL operations)
  message(FATAL_ERROR "exported:\n  ${exported}\nexpected:\n  ${operations}")
endif()
message(STATUS "SONAME and the twelve operations, nothing else")
