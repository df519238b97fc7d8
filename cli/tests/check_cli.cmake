# Drives artifact-detect end to end over the tiny test network.
# Usage: cmake -DCLI=<exe> -DMODEL=<onnx> -DSAMPLES=<dir> -DWORK_DIR=<dir> -P check_cli.cmake
file(REMOVE_RECURSE ${WORK_DIR})
file(WRITE ${WORK_DIR}/models/artifact_detector/artifact_detector_cnn.info
  "{\n\"model_type\": \"cpu\",\n\"precision\": \"float32\",\n\"model_path\": \"${MODEL}\"\n}\n")
file(WRITE ${WORK_DIR}/not_an_image.jpg "plain text")

function(expect_exit code)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL code)
    message(FATAL_ERROR "exit ${rc}, expected ${code}: ${ARGN}\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
  set(err "${err}" PARENT_SCOPE)
endfunction()

# Every line is one JSON object; an unreadable file is reported and the run goes on.
expect_exit(1 ${CLI} --models ${WORK_DIR}/models --jsonl --jobs 2
            ${SAMPLES} ${WORK_DIR}/not_an_image.jpg ${WORK_DIR}/missing.jpg)
string(REGEX REPLACE "\n$" "" out "${out}")
string(REPLACE "\n" ";" lines "${out}")
file(GLOB sample_images ${SAMPLES}/*.jpg)
list(LENGTH sample_images samples)
math(EXPR expected_lines "${samples} + 2")
list(LENGTH lines count)
if(NOT count EQUAL expected_lines)
  message(FATAL_ERROR "expected ${expected_lines} lines (the samples and 2 failures), got ${count}:\n${out}")
endif()
set(failed 0)
foreach(line IN LISTS lines)
  string(JSON image GET "${line}" image)
  string(JSON ok GET "${line}" ok)
  if(ok)
    string(JSON n LENGTH "${line}" artifacts)
    if(n GREATER 0)
      string(JSON first_tag GET "${line}" artifacts 0 tag)
      string(JSON first_id GET "${line}" artifacts 0 tag_id)
      string(JSON first_score GET "${line}" artifacts 0 score)
    endif()
  else()
    string(JSON error GET "${line}" error)
    math(EXPR failed "${failed} + 1")
  endif()
endforeach()
if(NOT failed EQUAL 2)
  message(FATAL_ERROR "expected the two bad files to fail:\n${out}")
endif()
if(NOT err MATCHES "${expected_lines} images, 2 failed")
  message(FATAL_ERROR "summary missing from standard error:\n${err}")
endif()

# Readable images only: success, a table per image, the library's lines hidden.
expect_exit(0 ${CLI} --models ${WORK_DIR}/models ${SAMPLES})
if(NOT out MATCHES "coffee.jpg\n" OR out MATCHES "TQ Debug" OR err MATCHES "TQ Debug")
  message(FATAL_ERROR "unexpected table output:\n${out}\n${err}")
endif()

# A raw NV21 buffer of the stated size runs; one of the wrong size fails.
string(REPEAT "Az" 32 row)      # one 64-byte row
string(REPEAT "${row}" 72 nv21)  # 48 rows of luma, 24 of chroma: 4608 bytes
file(WRITE ${WORK_DIR}/frame.nv21 "${nv21}")
expect_exit(0 ${CLI} --models ${WORK_DIR}/models --raw nv21 --size 64x48 --rotation 90
            --jsonl ${WORK_DIR}/frame.nv21)
expect_exit(1 ${CLI} --models ${WORK_DIR}/models --raw nv21 --size 64x50 --jsonl
            ${WORK_DIR}/frame.nv21)
if(NOT out MATCHES "expected 4800")
  message(FATAL_ERROR "wrong-size buffer not reported:\n${out}")
endif()

# Usage errors exit 2; a models directory without a model exits 1 before any image.
expect_exit(2 ${CLI} --raw yuv --size 4x4 x)
expect_exit(1 ${CLI} --models ${WORK_DIR}/nothing ${SAMPLES})
message(STATUS "artifact-detect behaves")
