# cmake -P script: libkronlog must define no symbol of the framework's
# namespace. Framework code compiled into it would be a second copy of
# libqel's, with its own statics and type information.
execute_process(COMMAND ${NM} -D --defined-only -C ${LIBRARY}
                RESULT_VARIABLE rc OUTPUT_VARIABLE symbols ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed (${rc}): ${err}")
endif()
string(REPLACE "\n" ";" lines "${symbols}")
set(found "")
foreach(line IN LISTS lines)
  # "<address> <type> <name>": a name that is in Qel::, or the type
  # information, vtable or guard of something in it.
  if(line MATCHES "^[0-9a-f]+ [A-Za-z] ((vtable|typeinfo|typeinfo name|guard variable|VTT) for )?Qel::"
     OR line MATCHES "^[0-9a-f]+ [A-Za-z] [^(]* Qel::")
    string(APPEND found "\n  ${line}")
  endif()
endforeach()
if(found)
  message(FATAL_ERROR "libkronlog defines framework symbols:${found}")
endif()
message(STATUS "libkronlog defines no Qel symbol")
