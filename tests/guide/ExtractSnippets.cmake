# vexutil_extract_cpp_snippets(<markdown file> <output directory> <result variable>)
#
# Writes every fenced block that opens with a line of exactly ```cpp to
# <output directory>/guide_<nn>_<heading>.cpp, where <nn> numbers the blocks
# from 01 and <heading> is the nearest "## " heading above the block, in lower
# case with every other character turned into "_". The file holds a #line
# directive naming the block's first line in the markdown file, then the block
# exactly as written. A file whose content would not change is left alone, so
# the build recompiles only edited blocks.
#
# Sets <result variable> to a list with one "<name>|<file>|<has main>" entry
# per block, where <has main> is 1 when the block contains "int main(".
# Stops with an error when the file has no such block or a block is not
# closed, so that a broken guide cannot pass by testing nothing.
function(vexutil_extract_cpp_snippets markdown output_dir result_var)
  file(READ "${markdown}" text)
  # A leading newline lets a block on the first line match like any other.
  set(text "\n${text}")
  set(open_fence "\n```cpp\n")
  string(LENGTH "${open_fence}" open_length)
  set(close_fence "\n```")
  string(LENGTH "${close_fence}" close_length)

  set(results "")
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
    set(heading "guide")
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
    if(count LESS 10)
      set(number "0${count}")
    else()
      set(number "${count}")
    endif()
    set(name "guide_${number}_${heading}")
    set(source "${output_dir}/${name}.cpp")
    set(content "#line ${line} \"${markdown}\"\n${code}\n")
    set(old "")
    if(EXISTS "${source}")
      file(READ "${source}" old)
    endif()
    if(NOT "${old}" STREQUAL "${content}")
      file(WRITE "${source}" "${content}")
    endif()

    string(FIND "${code}" "int main(" main_at)
    if(main_at EQUAL -1)
      set(has_main 0)
    else()
      set(has_main 1)
    endif()
    list(APPEND results "${name}|${source}|${has_main}")

    math(EXPR skip "${close} + ${close_length}")
    string(SUBSTRING "${rest}" ${skip} -1 rest)
    math(EXPR consumed "${code_offset} + ${skip}")
  endwhile()

  if(count EQUAL 0)
    message(FATAL_ERROR "${markdown}: no ```cpp block found")
  endif()
  set(${result_var} "${results}" PARENT_SCOPE)
endfunction()
