# Drives artifact-detect end to end over the tiny test network.
# Usage: cmake -DCLI=<exe> -DMODEL=<onnx> -DSAMPLES=<dir> -DFIXTURES=<dir> -DWORK_DIR=<dir>
#        -P check_cli.cmake
cmake_minimum_required(VERSION 3.22)
execute_process(COMMAND chmod -R u+rwx ${WORK_DIR} ERROR_QUIET)  # a locked folder of a run before
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

file(GLOB sample_images ${SAMPLES}/*.jpg)
list(LENGTH sample_images samples)

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

function(expect_output code pattern)
  expect_exit(${code} ${ARGN})
  if(NOT "${out}${err}" MATCHES "${pattern}")
    message(FATAL_ERROR "expected /${pattern}/ from ${ARGN}:\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

# A folder of hostile entries: each one that cannot be read is reported and counted, in order.
set(hostile ${WORK_DIR}/hostile)
file(MAKE_DIRECTORY ${hostile}/sub ${hostile}/locked)
file(COPY ${SAMPLES}/coffee.jpg DESTINATION ${hostile})
file(COPY ${SAMPLES}/rocket.jpg DESTINATION ${hostile}/sub)
file(COPY ${SAMPLES}/chelsea.jpg DESTINATION ${hostile}/locked)
file(COPY_FILE ${SAMPLES}/chelsea.jpg ${hostile}/unreadable.jpg)
file(CREATE_LINK nowhere.jpg ${hostile}/dangling.jpg SYMBOLIC)
file(WRITE ${hostile}/empty.jpg "")
file(WRITE ${hostile}/notes.txt "not an image by its name: skipped")
execute_process(COMMAND mkfifo ${hostile}/fifo.jpg)
execute_process(COMMAND chmod 000 ${hostile}/locked ${hostile}/unreadable.jpg)
execute_process(COMMAND truncate -s 64G ${WORK_DIR}/sparse.raw)
string(JOIN "[^\n]*\n[^\n]*" walk
  "coffee.jpg\",\"ok\":true" "dangling.jpg\",\"ok\":false,\"error\":\"cannot open file: No such file"
  "empty.jpg\",\"ok\":false,\"error\":\"not a JPEG" "fifo.jpg\",\"ok\":false,\"error\":\"not a regular file"
  "locked\",\"ok\":false,\"error\":\"cannot read folder: Permission denied"
  "sub/rocket.jpg\",\"ok\":true"
  "unreadable.jpg\",\"ok\":false,\"error\":\"cannot open file: Permission denied[^\n]*\n7 images, 5 failed")
# Root reads any folder; without the override capabilities it meets the permission bits.
execute_process(COMMAND id -u OUTPUT_VARIABLE uid OUTPUT_STRIP_TRAILING_WHITESPACE)
set(as_user)
if(uid EQUAL 0)
  set(as_user setpriv --bounding-set=-dac_override,-dac_read_search)
endif()
set(run ${CLI} --models ${WORK_DIR}/models)
set(lost "results lost: standard output: ")

expect_output(1 "${walk}" ${as_user} ${run} --jsonl --jobs 2 ${hostile})
expect_output(1 "locked\n  error: cannot read folder" ${as_user} ${run} ${hostile}/locked)
expect_output(1 "not a regular file" ${run} --jobs 2 ${hostile}/fifo.jpg ${SAMPLES})
expect_output(1 "not a regular file" ${run} --raw bgr --size 2x2 /dev/zero)
expect_output(1 "holds 68719476736 bytes, expected 12\"" ${run} --jsonl --raw bgr --size 2x2 ${WORK_DIR}/sparse.raw)
expect_output(1 "30000x30000 pixels is over the limit of 100000000" ${run} ${FIXTURES}/claims_30000x30000.jpg)
# A broken TIFF signature with DICOM's behind it: OpenCV's DICOM decoder aborts on such files.
expect_output(1 "dicom_behind_broken_tiff.tif\n  error: not a JPEG" ${run} ${FIXTURES}/dicom_behind_broken_tiff.tif)
# The test network takes 64x48: a 600x400 JPEG is decoded at 1/2 unless --exact-decode.
expect_exit(0 ${run} --jsonl --all-scores ${SAMPLES}/coffee.jpg)
set(reduced "${out}")
expect_exit(0 ${run} --jsonl --all-scores --exact-decode ${SAMPLES}/coffee.jpg)
if(out STREQUAL reduced)
  message(FATAL_ERROR "the same scores from a reduced and a full decode:\n${out}")
endif()

# Each format's header reader: 5x3 images, just over and just within the limit.
expect_output(1 "10 images, 10 failed" ${run} --max-pixels 14 ${FIXTURES}/headers)
string(REGEX MATCHALL "error: image of 5x3 pixels is over the limit of 14\n" refused "${out}")
list(LENGTH refused refused)
if(NOT refused EQUAL 10)
  message(FATAL_ERROR "a header reader misread the size:\n${out}")
endif()
expect_output(0 "10 images, 0 failed" ${run} --max-pixels 15 --exact-decode ${FIXTURES}/headers)
expect_output(1 "${lost}No space left on device" sh -c [[exec "$@" > /dev/full]] _ ${run} --jsonl ${SAMPLES})
# (A ';' would split the script: CMake passes it on as a list.)
expect_output(1 "${lost}Broken pipe" bash -c [[trap '' PIPE
  set -o pipefail
  { sleep 0.5
    exec "$@"
  } | true]] _ ${run} ${SAMPLES})

# Reports: one JSON object a line, an unreadable file reported while the run goes on, CSV rows
# that agree with the lines; thresholds set on the command line replace the table (a file) or
# one class (ID=P); the HTML page filters in a real browser.
file(WRITE ${WORK_DIR}/moire_only.json "{\n\"4\": 0.0\n}\n")
expect_output(0 "^artifact-detect [0-9.]+ \\(library [0-9.]+\\)\n$" ${run} --version)
expect_exit(1 ${run} --jsonl --all-scores --csv ${WORK_DIR}/r.csv --html ${WORK_DIR}/r.html
            --threshold 3=0 ${SAMPLES} ${WORK_DIR}/not_an_image.jpg)
file(STRINGS ${WORK_DIR}/r.csv rows)
list(POP_FRONT rows header)
string(REGEX REPLACE "\n$" "" out "${out}")
string(REPLACE "\n" ";" lines "${out}")
math(EXPR with_failed "${samples} + 1")
list(LENGTH lines count)
if(NOT count EQUAL with_failed OR NOT err MATCHES "${with_failed} images, 1 failed")
  message(FATAL_ERROR "a line per image and the summary on standard error:\n${out}\n${err}")
endif()
foreach(line IN LISTS lines)
  list(POP_FRONT rows row)
  string(JSON ok GET "${line}" ok)
  string(REPLACE "," ";" fields "${row}")
  list(LENGTH fields n)
  if(ok)
    string(JSON scores LENGTH "${line}" scores)
    string(JSON accepted LENGTH "${line}" artifacts)
    list(GET fields -1 tags)
    string(REPLACE " " ";" tags "${tags}")
    list(LENGTH tags listed)
    if(NOT n EQUAL 15 OR NOT scores EQUAL 11 OR NOT listed EQUAL accepted OR NOT "Flare" IN_LIST tags)
      message(FATAL_ERROR "row and line disagree, or Flare not accepted at 0:\n${row}\n${line}")
    endif()
  elseif(NOT row MATCHES ",false,\"not a JPEG[^\"]*\",,,,,,,,,,,,$")
    message(FATAL_ERROR "failed image's row: ${row}")
  endif()
endforeach()
expect_exit(0 ${run} --jsonl --thresholds ${WORK_DIR}/moire_only.json ${SAMPLES})
string(REGEX MATCHALL "\"tag\":\"[A-Za-z]+\"" tags "${out}")
list(REMOVE_DUPLICATES tags)
if(NOT tags STREQUAL "\"tag\":\"Moire\"")
  message(FATAL_ERROR "a threshold file replaces the table: ${tags}")
endif()
if(CHROMIUM)
  execute_process(COMMAND ${CHROMIUM} --headless=new --no-sandbox --disable-gpu --dump-dom
                          file://${WORK_DIR}/r.html\#failed
                  OUTPUT_VARIABLE dom ERROR_QUIET TIMEOUT 120)
  string(REGEX MATCHALL "<figure[^>]*>" figures "${dom}")
  string(REGEX MATCHALL "<figure data-tags=\"[^\"]*\">" shown "${dom}")
  string(REGEX MATCHALL "src=\"data:image/jpeg" inline "${dom}")
  list(LENGTH figures total)
  list(LENGTH inline thumbnails)
  if(NOT total EQUAL with_failed OR NOT shown STREQUAL "<figure data-tags=\"failed\">"
     OR NOT thumbnails EQUAL samples OR dom MATCHES "src=\"[^d]")
    message(FATAL_ERROR "the page in the browser, filtered to the failed image:\n${dom}")
  endif()
endif()

# Usage errors exit 2; a models directory without a model exits 1 before any image.
expect_exit(2 ${CLI} --raw yuv --size 4x4 x)
expect_exit(1 ${CLI} --models ${WORK_DIR}/nothing ${SAMPLES})
message(STATUS "artifact-detect behaves")
