# Writes the mp4stbl(1) man page with help2man from the command's --help,
# each subcommand's own --help in a section of its own.
#   cmake -DCOMMAND=mp4stbl -DHELP2MAN=help2man -DOUTPUT=mp4stbl.1 -P man_page.cmake
set(subcommands info dump samples seek verify trim join remux record recover report extract)
get_filename_component(dir "${OUTPUT}" DIRECTORY)
set(include "${dir}/mp4stbl.h2m")
set(text "[SUBCOMMANDS]\nEach subcommand takes the options its help lists.\n")
foreach(sub IN LISTS subcommands)
  execute_process(COMMAND "${COMMAND}" ${sub} --help OUTPUT_VARIABLE help RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${COMMAND} ${sub} --help failed")
  endif()
  # Text as it is: no escapes, no requests at the start of a line, and
  # minus signs that copy as such.
  string(REPLACE "\\" "\\e" help "${help}")
  string(REPLACE "-" "\\-" help "${help}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" help "${help}")
  string(APPEND text ".SS ${sub}\n.nf\n${help}.fi\n")
endforeach()
file(WRITE "${include}" "${text}")
execute_process(
  COMMAND "${HELP2MAN}" --no-info --no-discard-stderr --section 1
          --name "inspect, seek, edit, record, recover and extract MP4 files by their sample tables"
          --include "${include}" --output "${OUTPUT}" "${COMMAND}"
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "help2man failed on ${COMMAND}")
endif()
