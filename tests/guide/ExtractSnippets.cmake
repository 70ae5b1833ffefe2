# vexutil_extract_cpp_snippets(<markdown file> <output directory> <prefix> <result variable>
#                              [REQUIRED])
#
# Finds every fenced block that opens with a line of exactly ```cpp. A block
# that contains "int main(" is a whole program: it is written to
# <output directory>/<prefix>_<nn>_<heading>.cpp, where <nn> numbers the
# blocks from 01 and <heading> is the nearest "## " heading above the block, in
# lower case with every other character turned into "_". Every other block is a
# fragment: the fragments of one file are written, in the order they appear,
# to one file <output directory>/<prefix>_fragments.cpp that first includes
# SnippetPrelude.h (the public umbrella header and the using-declarations the
# pages announce), so a later fragment may use what an earlier one declared.
# Each block is preceded by a #line directive naming its first line in the
# markdown file, so compiler messages point into the page. A file whose
# content would not change is left alone, so the build recompiles only edited
# blocks.
#
# Sets <result variable> to a list with one "<name>|<file>|<has main>" entry per
# whole program, plus one entry with <has main> 0 for the fragments file when
# there are fragments. With REQUIRED, stops with an error when the file has no
# block at all, so that a broken README cannot pass by testing nothing; an
# unclosed block is always an error.
function(vexutil_extract_cpp_snippets markdown output_dir prefix result_var)
  cmake_parse_arguments(ARG "REQUIRED" "" "" ${ARGN})
  file(READ "${markdown}" text)
  # A leading newline lets a block on the first line match like any other.
  set(text "\n${text}")
  set(open_fence "\n```cpp\n")
  string(LENGTH "${open_fence}" open_length)
  set(close_fence "\n```")
  string(LENGTH "${close_fence}" close_length)

  set(results "")
  set(fragments "")
  set(count 0)
  set(consumed 0)  # Characters of `text` before `rest`.
  set(rest "${text}")
  while(TRUE)
    string(FIND "${rest}" "${open_fence}" open)
    if(open EQUAL -1)
      break()
    endif()
    math(EXPR code_offset "${consumed} + ${open} + ${open_length}")
    math(EXPR skip "${open} + ${open_length}")
    string(SUBSTRING "${rest}" ${skip} -1 rest)
    string(FIND "${rest}" "${close_fence}" close)
    if(close EQUAL -1)
      message(FATAL_ERROR "${markdown}: a ```cpp block is not closed")
    endif()
    string(SUBSTRING "${rest}" 0 ${close} code)

    # Where the block starts: line number and heading.
    string(SUBSTRING "${text}" 0 ${code_offset} before)
    string(REGEX REPLACE "[^\n]" "" newlines "${before}")
    string(LENGTH "${newlines}" line)  # The leading "\n" added above counts as line 0's end.
    set(heading "top")
    string(FIND "${before}" "\n## " heading_at REVERSE)
    if(NOT heading_at EQUAL -1)
      math(EXPR heading_at "${heading_at} + 4")
      string(SUBSTRING "${before}" ${heading_at} -1 heading)
      string(FIND "${heading}" "\n" heading_end)
      string(SUBSTRING "${heading}" 0 ${heading_end} heading)
      string(TOLOWER "${heading}" heading)
      string(REGEX REPLACE "[^a-z0-9]+" "_" heading "${heading}")
      string(REGEX REPLACE "^_+|_+$" "" heading "${heading}")
    endif()

    math(EXPR count "${count} + 1")
    set(block "#line ${line} \"${markdown}\"\n${code}\n")
    string(FIND "${code}" "int main(" main_at)
    if(main_at EQUAL -1)
      string(APPEND fragments "${block}")
    else()
      if(count LESS 10)
        set(number "0${count}")
      else()
        set(number "${count}")
      endif()
      set(name "${prefix}_${number}_${heading}")
      _vexutil_write_if_changed("${output_dir}/${name}.cpp" "${block}")
      list(APPEND results "${name}|${output_dir}/${name}.cpp|1")
    endif()

    math(EXPR skip "${close} + ${close_length}")
    string(SUBSTRING "${rest}" ${skip} -1 rest)
    math(EXPR consumed "${code_offset} + ${skip}")
  endwhile()

  if(fragments)
    set(name "${prefix}_fragments")
    _vexutil_write_if_changed("${output_dir}/${name}.cpp" "#include \"SnippetPrelude.h\"\n${fragments}")
    list(APPEND results "${name}|${output_dir}/${name}.cpp|0")
  endif()
  if(count EQUAL 0 AND ARG_REQUIRED)
    message(FATAL_ERROR "${markdown}: no ```cpp block found")
  endif()
  set(${result_var} "${results}" PARENT_SCOPE)
endfunction()

function(_vexutil_write_if_changed file content)
  set(old "")
  if(EXISTS "${file}")
    file(READ "${file}" old)
  endif()
  if(NOT "${old}" STREQUAL "${content}")
    file(WRITE "${file}" "${content}")
  endif()
endfunction()
