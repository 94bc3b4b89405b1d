cmake_minimum_required(VERSION 3.25)
# Fails unless the shared library LIB exports exactly the names listed in
# EXPORTS (one a line, generated from the public headers), naming every
# missing and every extra symbol.
execute_process(COMMAND nm -D --defined-only ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
file(STRINGS ${EXPORTS} expected)
string(REPLACE "\n" ";" lines "${out}")
set(actual "")
foreach(line ${lines})
  # "address type name"; a version node would read "name@@VERSION".
  if(line MATCHES "^[0-9a-fA-F]* +[A-Za-z] +([^ ]+)$")
    list(APPEND actual ${CMAKE_MATCH_1})
  endif()
endforeach()
set(missing ${expected})
list(REMOVE_ITEM missing ${actual})
set(extra ${actual})
list(REMOVE_ITEM extra ${expected})
list(LENGTH expected n_expected)
list(LENGTH actual n_actual)
if(missing OR extra)
  list(JOIN missing " " missing)
  list(JOIN extra " " extra)
  message(FATAL_ERROR "${LIB}: ${n_actual} symbols exported, ${n_expected} declared\n"
                      "  declared but not exported: ${missing}\n"
                      "  exported but not declared: ${extra}")
endif()
message(STATUS "${n_actual} symbols exported, exactly those declared")
