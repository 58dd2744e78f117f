# Records a device, makes seeds of the recording, and runs each target that gets any on them. With cmake -P and -D
# SIM, CTL: the programs; TARGETS: the folder of the fuzz targets; ARGUMENTS: what they take beside the inputs; WORK: a folder.
cmake_minimum_required(VERSION 3.25)

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
string(CONFIGURE [[
set -e
"@CTL@" device
"@CTL@" get type
for action in "list packages" "list packages --uid 1000" "version-code com.orvel.camera" "has-feature one" \
    "meta-data com.orvel.camera k" "query-receivers android.intent.action.BOOT_COMPLETED"; do
  "@CTL@" pm $action || true
done
"@CTL@" am foreground
"@CTL@" am launch com.orvel.camera
"@CTL@" event N n
"@CTL@" watch --count 3 name package setting:k 2>watch.log & watch=$!
"@CTL@" directive --count 1 N 2>directive.log & directive=$!
for log in watch directive; do
  until grep -q 'orvelctl: watching' $log.log; do sleep 0.05; done
done
"@SIM@" set name Hall
"@SIM@" package added com.example.app
"@SIM@" set setting k 1
"@SIM@" directive N a b
wait $watch $directive
"@SIM@" exception delegate getDeviceName
"@CTL@" get name || true
"@SIM@" traffic --past --record session.jsonl
"@SIM@" convert session.jsonl --seeds seeds
]] script @ONLY)
file(WRITE ${WORK}/session.sh "${script}")
execute_process(COMMAND ${SIM} run -- /bin/sh session.sh WORKING_DIRECTORY ${WORK} RESULT_VARIABLE status
  OUTPUT_VARIABLE output ERROR_VARIABLE output TIMEOUT 100)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "the session failed with ${status}:\n${output}")
endif()

foreach(target Assistant Bundles Components Device Endpoints Intent Packages Primitives Processes ReplyFrame)
  file(GLOB seeds ${WORK}/seeds/${target}/*)
  if(NOT seeds)
    message(FATAL_ERROR "the recording gave no seeds for ${target}")
  endif()
  execute_process(COMMAND ${TARGETS}/fuzz_${target} ${ARGUMENTS} ${WORK}/seeds/${target} RESULT_VARIABLE status
    OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "fuzz_${target} on its seeds: ${status}\n${output}")
  endif()
endforeach()
