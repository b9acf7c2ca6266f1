# kestrova_constants(): the external constants of the SDK as a generated source file of the host's own target.
#
#   kestrova_constants(TARGET API_HOST host[:port] [API_VERSION text] [SESSION_STARTED_KEY text] [DID_COOKIE_MATCH_KEY text]
#                      [HAWK_LOCAL_TIME_SKEW text])
#
# adds a source file to TARGET that defines kestrovaGeneratedConstants(), declared in "KestrovaGeneratedConstants.h", which the host hands
# to Kestrova::start as Configuration::constants. What is left out keeps its default. Texts are printable ASCII without quote, backslash
# and semicolon.
set(KESTROVA_CONSTANTS_TEMPLATES ${CMAKE_CURRENT_LIST_DIR}/constants)

function(kestrova_constants target)
  set(names API_HOST API_VERSION SESSION_STARTED_KEY DID_COOKIE_MATCH_KEY HAWK_LOCAL_TIME_SKEW)
  set(members apiHost apiVersionString sessionStartedKey didCookieMatchKey hawkLocalTimeSkew)
  cmake_parse_arguments(PARSE_ARGV 1 CONSTANT "" "${names}" "")
  if(CONSTANT_UNPARSED_ARGUMENTS OR CONSTANT_KEYWORDS_MISSING_VALUES)
    message(FATAL_ERROR "kestrova_constants: unknown or empty argument ${CONSTANT_UNPARSED_ARGUMENTS} ${CONSTANT_KEYWORDS_MISSING_VALUES}")
  endif()
  if(NOT "${CONSTANT_API_HOST}" MATCHES "^([A-Za-z0-9._-]+|\\[[0-9A-Fa-f:.]+\\])(:[0-9]+)?$")
    message(FATAL_ERROR "kestrova_constants: API_HOST must be a host name, with :port where it is not 443")
  endif()

  set(KESTROVA_ASSIGNMENTS "")
  foreach(name member IN ZIP_LISTS names members)
    if(DEFINED CONSTANT_${name})
      set(text "${CONSTANT_${name}}")
      if(NOT "${text}" MATCHES "^[ -~]+$" OR "${text}" MATCHES "[\"\\\\;]")
        message(FATAL_ERROR "kestrova_constants: ${name} must be printable ASCII without quote, backslash and semicolon")
      endif()
      string(APPEND KESTROVA_ASSIGNMENTS "  constants.${member} = \"${text}\";\n")
    endif()
  endforeach()

  set(folder ${CMAKE_CURRENT_BINARY_DIR}/kestrova_constants/${target})
  configure_file(${KESTROVA_CONSTANTS_TEMPLATES}/KestrovaGeneratedConstants.h.in ${folder}/KestrovaGeneratedConstants.h @ONLY)
  configure_file(${KESTROVA_CONSTANTS_TEMPLATES}/KestrovaGeneratedConstants.cpp.in ${folder}/KestrovaGeneratedConstants.cpp @ONLY)
  target_sources(${target} PRIVATE ${folder}/KestrovaGeneratedConstants.cpp)
  target_include_directories(${target} PRIVATE ${folder})
endfunction()
