# Fails when a tracked file reads something a fresh clone lacks: a directory beside the checkout
# (the clone stands alone) or a path under tests/data that git does not track (present here,
# missing there). Variables: SOURCE_DIR, GIT.

function(git_output out)
  execute_process(COMMAND ${GIT} ${ARGN} WORKING_DIRECTORY ${SOURCE_DIR}
                  OUTPUT_VARIABLE text RESULT_VARIABLE status)
  # git grep exits 1 when nothing matches.
  if(NOT status EQUAL 0 AND NOT status EQUAL 1)
    message(FATAL_ERROR "git ${ARGN} failed: ${status}")
  endif()
  string(STRIP "${text}" text)
  string(REPLACE "\n" ";" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# The brackets keep this file from matching itself.
git_output(outside grep -n -I -E "[.][.]/shared|/work/[s]hared")
if(outside)
  string(REPLACE ";" "\n  " outside "${outside}")
  message(FATAL_ERROR "Tracked files read from beside the checkout:\n  ${outside}")
endif()

git_output(mentioned grep -h -o -I -E "tests/data/[A-Za-z0-9_./-]*[A-Za-z0-9_-]")
list(REMOVE_DUPLICATES mentioned)
set(missing "")
foreach(path IN LISTS mentioned)
  # A tracked file, or a directory that holds one.
  git_output(tracked ls-files -- "${path}")
  if(NOT tracked)
    list(APPEND missing "${path}")
  endif()
endforeach()
if(missing)
  string(REPLACE ";" "\n  " missing "${missing}")
  message(FATAL_ERROR "Paths the repository does not track:\n  ${missing}")
endif()
