cmake_minimum_required(VERSION 3.25)
# Lists every function and datum that the public headers declare with
# QV_EXPORT, one name a line, and writes the linker version script that
# exports exactly those names. Each declaration starts on one line with
# QV_EXPORT, its name and the "(" or "[" or ";" that follows the name.
#   cmake -DHEADERS=a.h;b.h -DOUT_LIST=exports.txt -DOUT_MAP=qvmodule.map -P qv_exports.cmake
set(id "[A-Za-z_][A-Za-z0-9_]*")
set(names "")
foreach(header ${HEADERS})
  file(STRINGS "${header}" lines REGEX "^[ \t]*QV_EXPORT[ \t]")
  foreach(line IN LISTS lines)
    if(NOT line MATCHES "QV_EXPORT")
      continue()
    endif()
    string(REGEX REPLACE "^[ \t]*QV_EXPORT[ \t]+" "" decl "${line}")
    # Attributes hold parentheses of their own.
    string(REGEX REPLACE "__attribute__[ \t]*\\(\\([^()]*(\\([^()]*\\))?[^()]*\\)\\)" "" decl "${decl}")
    if(decl MATCHES "^[^(]*\\([ \t]*\\*[ \t]*(${id})")
      # A function pointer, or a function that returns one: (*name
      set(name ${CMAKE_MATCH_1})
    else()
      # The last identifier before the first "(", "[", ";" or "=".
      string(REGEX REPLACE "\\(.*" "" head "${decl}")
      string(REGEX REPLACE "\\[.*" "" head "${head}")
      string(REGEX REPLACE "[;=].*" "" head "${head}")
      if(NOT head MATCHES "[^A-Za-z0-9_](${id})[ \t]*$")
        message(FATAL_ERROR "${header}: cannot find the name in: ${line}")
      endif()
      set(name ${CMAKE_MATCH_1})
    endif()
    list(APPEND names ${name})
  endforeach()
endforeach()
list(LENGTH names count)
if(count EQUAL 0)
  message(FATAL_ERROR "no QV_EXPORT declaration in: ${HEADERS}")
endif()
list(REMOVE_DUPLICATES names)
list(SORT names)

list(JOIN names "\n" text)
set(map "/* Generated from the QV_EXPORT declarations of the public headers:\n\
   only they leave the shared library. */\n{\n  global:\n")
foreach(name ${names})
  string(APPEND map "    ${name};\n")
endforeach()
string(APPEND map "  local: *;\n};\n")
# Unchanged outputs keep their time stamps, so the library is not relinked
# for every edit of a header.
file(CONFIGURE OUTPUT "${OUT_LIST}" CONTENT "${text}\n" @ONLY)
file(CONFIGURE OUTPUT "${OUT_MAP}" CONTENT "${map}" @ONLY)
