# Writes the source revision as VYN_BUILD_ID: 40 hexadecimal digits, zeros outside a checkout.
set(zeros "0000000000000000000000000000000000000000")
set(revision ${zeros})
# The prefix is empty only if this folder is the root of the checkout. A source tree that was unpacked inside
# another checkout has no revision of its own. safe.directory lets git read a checkout that belongs to another
# user.
execute_process(COMMAND git -c safe.directory=${SOURCE} -C ${SOURCE} rev-parse --show-prefix HEAD
                OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
if(NOT failed AND answer MATCHES "^\n([0-9a-f]+)$")
  string(SUBSTRING "${CMAKE_MATCH_1}${zeros}" 0 40 revision)
endif()
set(text "#pragma once\n#define VYN_BUILD_ID \"${revision}\"\n")
set(old "")
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} old)
endif()
if(NOT old STREQUAL text)
  file(WRITE ${OUTPUT} "${text}")
endif()
