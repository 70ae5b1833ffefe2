# SPDX-License-Identifier: MIT
# Fails unless the markdown file PAGE contains the file SOURCE whole, as one
# ```cpp block of its own, so that a program shown on a page cannot drift from
# the file that is built and installed.
#
#   cmake -DPAGE=<markdown file> -DSOURCE=<source file> -P CheckShownWhole.cmake
if(NOT DEFINED PAGE OR NOT DEFINED SOURCE)
  message(FATAL_ERROR "CheckShownWhole.cmake needs PAGE and SOURCE")
endif()
file(READ "${PAGE}" page_text)
file(READ "${SOURCE}" source_text)
string(FIND "${page_text}" "\n```cpp\n${source_text}```\n" at)
if(at EQUAL -1)
  message(FATAL_ERROR "${PAGE} does not show ${SOURCE} whole in a ```cpp block of its own")
endif()
