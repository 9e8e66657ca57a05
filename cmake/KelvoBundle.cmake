# kelvo_add_bundle(<target> APP_ID <id>
#                  [BUNDLE_ID <id>] [NAME <name>] [VERSION <version>] [BUILD <build>]
#                  [DELIVERY complete|classic] [CONSENT required] [JOURNAL_BYTES <number>] [NO_FAREWELL]
#                  [PLUGINS <class>...] [SERVER_BASE_URL <url>] [CA_FILE <path>])
#
# Writes `<executable>.bundle/Info.plist` next to the executable `target`. With this bundle, the library starts when the
# program is loaded.
#
#   APP_ID           the application's id at the service
#   BUNDLE_ID        names the home; default: the executable's name
#   NAME             the application's name as the service shows it; default: the target's name
#   VERSION, BUILD   the application's version as the service shows it; default: none
#   DELIVERY         the rules of delivery: complete (default) delivers every event once, also after a long absence or
#                    an outage; classic keeps the losses that the system requires
#   CONSENT          required: nothing is collected, stored or sent before KelvoSDK::setConsent(granted)
#   JOURNAL_BYTES    the size of the journal, from 65536 to 67108864; 0: none; default: 4194304
#   NO_FAREWELL      the program prints no line when it ends
#   PLUGINS          classes of the plug-ins that are linked in; kelvo_add_plugin adds those in shared objects
#   SERVER_BASE_URL  the service
#   CA_FILE          absolute path, on the machine that runs the program, of a private authority in PEM form
function(kelvo_add_bundle target)
  cmake_parse_arguments(ARG "NO_FAREWELL" "APP_ID;BUNDLE_ID;NAME;VERSION;BUILD;DELIVERY;CONSENT;JOURNAL_BYTES;SERVER_BASE_URL;CA_FILE" "PLUGINS" ${ARGN})
  if(NOT TARGET ${target})
    message(FATAL_ERROR "kelvo_add_bundle: there is no target ${target}")
  endif()
  get_target_property(type ${target} TYPE)
  if(NOT type STREQUAL "EXECUTABLE")
    message(FATAL_ERROR "kelvo_add_bundle: ${target} is no executable; programs have bundles, libraries have none")
  endif()
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "kelvo_add_bundle: unknown arguments: ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT ARG_APP_ID)
    message(FATAL_ERROR "kelvo_add_bundle: APP_ID is missing; it is the id of the application at the service")
  endif()
  if(ARG_SERVER_BASE_URL AND NOT ARG_SERVER_BASE_URL MATCHES "^https?://")
    message(FATAL_ERROR "kelvo_add_bundle: SERVER_BASE_URL ${ARG_SERVER_BASE_URL} does not begin with https:// (or with "
                        "http://, which is for loopback addresses)")
  endif()
  if(ARG_CA_FILE AND NOT IS_ABSOLUTE "${ARG_CA_FILE}")
    message(FATAL_ERROR "kelvo_add_bundle: CA_FILE ${ARG_CA_FILE} is no full path; the program may run in any directory")
  endif()
  if(NOT DEFINED ARG_DELIVERY AND NOT "DELIVERY" IN_LIST ARG_KEYWORDS_MISSING_VALUES)
    set(ARG_DELIVERY complete)
  endif()
  if(NOT "${ARG_DELIVERY}" MATCHES "^(complete|classic)$")
    message(FATAL_ERROR "kelvo_add_bundle: DELIVERY \"${ARG_DELIVERY}\" is neither complete nor classic")
  endif()
  if("CONSENT" IN_LIST ARG_KEYWORDS_MISSING_VALUES OR (DEFINED ARG_CONSENT AND NOT ARG_CONSENT STREQUAL "required"))
    message(FATAL_ERROR "kelvo_add_bundle: CONSENT \"${ARG_CONSENT}\" is unknown; the only value is: required")
  endif()
  if("JOURNAL_BYTES" IN_LIST ARG_KEYWORDS_MISSING_VALUES)
    set(ARG_JOURNAL_BYTES " ")
  endif()
  if(DEFINED ARG_JOURNAL_BYTES AND NOT ARG_JOURNAL_BYTES STREQUAL "0"
     AND NOT (ARG_JOURNAL_BYTES MATCHES "^[1-9][0-9]*$" AND ARG_JOURNAL_BYTES GREATER_EQUAL 65536
              AND ARG_JOURNAL_BYTES LESS_EQUAL 67108864))
    message(FATAL_ERROR "kelvo_add_bundle: JOURNAL_BYTES \"${ARG_JOURNAL_BYTES}\" is neither 0 nor from 65536 to 67108864")
  endif()
  if(NOT ARG_NAME)
    set(ARG_NAME ${target})
  endif()

  set(entries "")
  macro(add_entry key value)
    if(NOT "${value}" STREQUAL "")
      _kelvo_xml_text("${value}" text)
      string(APPEND entries "  <key>${key}</key><string>${text}</string>\n")
    endif()
  endmacro()
  add_entry(CFBundleIdentifier "${ARG_BUNDLE_ID}")
  add_entry(CFBundleName "${ARG_NAME}")
  add_entry(CFBundleShortVersionString "${ARG_VERSION}")
  add_entry(CFBundleVersion "${ARG_BUILD}")
  add_entry(KelvoDelivery "${ARG_DELIVERY}")
  add_entry(KelvoConsent "${ARG_CONSENT}")
  add_entry(KelvoServerBaseURL "${ARG_SERVER_BASE_URL}")
  add_entry(KelvoCAFile "${ARG_CA_FILE}")
  if(DEFINED ARG_JOURNAL_BYTES)
    string(APPEND entries "  <key>KelvoJournalBytes</key><integer>${ARG_JOURNAL_BYTES}</integer>\n")
  endif()
  if(ARG_NO_FAREWELL)
    string(APPEND entries "  <key>KelvoFarewell</key><false/>\n")
  endif()

  _kelvo_xml_text("${ARG_APP_ID}" text)
  string(APPEND entries "  <key>Kelvo</key>\n  <dict>\n    <key>Core</key><string>${text}</string>\n")
  # Later calls of kelvo_add_plugin extend the list, so it is read when the project is generated.
  foreach(plugin IN LISTS ARG_PLUGINS)
    _kelvo_xml_text("${plugin}" text)
    set_property(TARGET ${target} APPEND PROPERTY KELVO_PLUGINS "${text}")
  endforeach()
  set(plugins "$<REMOVE_DUPLICATES:$<TARGET_PROPERTY:${target},KELVO_PLUGINS>>")
  set(entry "$<ANGLE-R><true/$<ANGLE-R>\n    <key$<ANGLE-R>")
  string(APPEND entries "$<$<BOOL:${plugins}>:    <key$<ANGLE-R>$<JOIN:${plugins},</key${entry}></key$<ANGLE-R><true/$<ANGLE-R>\n>")
  string(APPEND entries "  </dict>\n")

  file(GENERATE OUTPUT "$<TARGET_FILE:${target}>.bundle/Info.plist" CONTENT
"<?xml version=\"1.0\" encoding=\"UTF-8\"?>
<plist version=\"1.0\">
<dict>
${entries}</dict>
</plist>
")
endfunction()

function(_kelvo_xml_text text result)
  string(REPLACE "&" "&amp;" text "${text}")
  string(REPLACE "<" "&lt;" text "${text}")
  string(REPLACE ">" "&gt;" text "${text}")
  set(${result} "${text}" PARENT_SCOPE)
endfunction()
