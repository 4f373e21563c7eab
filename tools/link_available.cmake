# Writes a linker response file that pulls into vkimg every wanted library
# function whose archive member can be linked.
#
#   cmake -DNM=nm -DARCHIVE=lib.a -DOUT=file.rsp -DWANTED=V_A,V_B -P link_available.cmake
#
# The program refers to the library weakly, and weak references pull no
# archive member in.  A member can be linked when every library symbol it
# uses (V_... or in namespace vk) is defined by another member that can be
# linked; members that use functions not written yet cannot.  For each
# wanted function defined by a linkable member the file gets -Wl,-u,NAME,
# which makes the linker take that member (and what it needs) in.
execute_process(COMMAND "${NM}" -A "${ARCHIVE}" OUTPUT_VARIABLE text ERROR_QUIET RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  file(WRITE "${OUT}" "")
  return()
endif()
string(REPLACE "\n" ";" lines "${text}")
string(REPLACE "," ";" WANTED "${WANTED}")

set(members "")
foreach(line IN LISTS lines)
  # archive:member.o:<address or blanks> <type> <symbol>
  if(NOT line MATCHES "^[^:]*:([^:]+):[0-9a-fA-F ]* ([A-Za-z]) (.+)$")
    continue()
  endif()
  set(member "${CMAKE_MATCH_1}")
  set(type "${CMAKE_MATCH_2}")
  set(sym "${CMAKE_MATCH_3}")
  if(NOT DEFINED "uses_${member}")
    list(APPEND members "${member}")
    set("uses_${member}" "")
  endif()
  if(type STREQUAL "U")
    if(sym MATCHES "^V_" OR sym MATCHES "^_ZN+K?2vk")
      list(APPEND "uses_${member}" "${sym}")
    endif()
  elseif(type MATCHES "[A-Z]")
    list(APPEND "def_${sym}" "${member}")
  endif()
endforeach()

# Drop members that use a library symbol no linkable member defines, until
# nothing changes.
foreach(m IN LISTS members)
  set("ok_${m}" 1)
endforeach()
set(changed 1)
while(changed)
  set(changed 0)
  foreach(m IN LISTS members)
    if(NOT ok_${m})
      continue()
    endif()
    foreach(sym IN LISTS "uses_${m}")
      set(found 0)
      foreach(d IN LISTS "def_${sym}")
        if(ok_${d})
          set(found 1)
          break()
        endif()
      endforeach()
      if(NOT found)
        set("ok_${m}" 0)
        set(changed 1)
        break()
      endif()
    endforeach()
  endforeach()
endwhile()

set(out "")
foreach(fn IN LISTS WANTED)
  foreach(d IN LISTS "def_${fn}")
    if(ok_${d})
      string(APPEND out "-Wl,-u,${fn}\n")
      break()
    endif()
  endforeach()
endforeach()
file(WRITE "${OUT}" "${out}")
