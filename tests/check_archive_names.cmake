cmake_minimum_required(VERSION 3.25)
# Fails when the static archive LIB defines an external name that a daemon
# linking it could collide with: every one must be exported API (listed in
# EXPORTS), inside the library's C++ namespace qv, or a C++ runtime or
# template instance that the compiler emits as a weak definition.
execute_process(COMMAND nm --defined-only --extern-only ${LIB}
  OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
file(STRINGS ${EXPORTS} exported)
string(REPLACE "\n" ";" lines "${out}")
set(offenders "")
foreach(line ${lines})
  if(NOT line MATCHES "^[0-9a-fA-F]* +([A-Za-z]) +([^ ]+)$")
    continue() # member headers and blank lines
  endif()
  set(type ${CMAKE_MATCH_1})
  set(sym ${CMAKE_MATCH_2})
  if(sym IN_LIST exported OR sym MATCHES "^_ZN(K)?2qv")
    continue()
  endif()
  # Weak C++ definitions (inline functions, templates of the standard
  # library) merge with a daemon's identical ones instead of colliding.
  if(type MATCHES "^[WVu]$" AND sym MATCHES "^_Z")
    continue()
  endif()
  # 32-bit x86 position-independent code reads its own address through
  # these compiler thunks; they are hidden and merged across objects.
  if(sym MATCHES "^__x86\\.get_pc_thunk\\.")
    continue()
  endif()
  list(APPEND offenders "${sym} (${type})")
endforeach()
if(offenders)
  list(LENGTH offenders n)
  list(JOIN offenders "\n  " text)
  message(FATAL_ERROR "${LIB} defines ${n} names outside the API and namespace qv:\n  ${text}")
endif()
message(STATUS "every external name of the archive is API or in namespace qv")
