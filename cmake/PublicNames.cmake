# The public names of a library are the ones its headers mark LUMORA_API:
# functions ("LUMORA_API int name(") and globals ("LUMORA_API extern T a, b;").
# The version script and the export test both come from here, so the headers
# are the one list.
function(lumora_public_names out)
  set(names)
  foreach(header ${ARGN})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
    file(READ ${header} text)
    string(REGEX MATCHALL "LUMORA_API[^;(]*[;(]" decls "${text}")
    foreach(decl ${decls})
      string(REGEX REPLACE "[ \t\r\n]+" " " decl "${decl}")
      if(decl MATCHES "\\($")
        string(REGEX MATCH "([A-Za-z_][A-Za-z0-9_]*) ?\\($" _ "${decl}")
        list(APPEND names ${CMAKE_MATCH_1})
      else()
        # "LUMORA_API extern T a, b, c;": the names after the type.
        string(REGEX REPLACE "^LUMORA_API extern [A-Za-z_][A-Za-z0-9_]* " "" list "${decl}")
        string(REGEX REPLACE "[ ;]" "" list "${list}")
        string(REPLACE "," ";" list "${list}")
        list(APPEND names ${list})
      endif()
    endforeach()
  endforeach()
  set(${out} ${names} PARENT_SCOPE)
endfunction()

# Writes a version script that exports the names and hides everything else.
function(lumora_version_script file)
  set(body "/* Generated from the public headers: their LUMORA_API names and nothing else. */\n{\n  global:\n")
  foreach(name ${ARGN})
    string(APPEND body "    ${name};\n")
  endforeach()
  string(APPEND body "  local:\n    *;\n};\n")
  file(WRITE ${file}.tmp "${body}")
  configure_file(${file}.tmp ${file} COPYONLY)
endfunction()
