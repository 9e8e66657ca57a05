#include "core/DataDescription.h"

#include <string>
#include <string_view>

namespace kelvo {
namespace {

struct Kind {
  std::string_view name;
  std::string_view what;
  std::string_view purpose;
  std::string_view stored;
  std::string_view kept;
};

// Where and how long.
constexpr std::string_view kDefaults = "user defaults in the home";
constexpr std::string_view kDatabase = "database in the home";
constexpr std::string_view kSessionFiles = "files of the session in the home, and database";
constexpr std::string_view kUserFile = "file of the user in the home";
constexpr std::string_view kMemory = "memory, and with each waiting chunk in the database";
constexpr std::string_view kNowhere = "not stored on the device";
constexpr std::string_view kUntilErased = "until it is erased";
constexpr std::string_view kUntilAccepted = "until the service has accepted the session's data";
constexpr std::string_view kProcess = "while the program runs";

// Purposes.
constexpr std::string_view kAssign = "tells the data of one installation from that of another";
constexpr std::string_view kCompare = "compares versions and kinds of devices, and finds faults that only some have";
constexpr std::string_view kUsage = "measures how long and how often the application is used";
constexpr std::string_view kEventsPurpose = "shows how the application is used, as its maker has chosen";
constexpr std::string_view kDelivery = "delivers each event once, and lets the service notice what is missing";
constexpr std::string_view kFaults = "finds and repairs faults of the application";

/// Everything that a request carries. A name is the path of a member; it also covers the members below it.
constexpr Kind kKinds[] = {
    {"device_info.id", "a random id of this installation", kAssign, kDefaults, kUntilErased},
    {"device_info.hardware_model", "the name of the device's model or processor", kCompare, kMemory, kUntilAccepted},
    {"device_info.os_version", "the version of the operating system", kCompare, kMemory, kUntilAccepted},
    {"device_info.platform", "a constant", kCompare, kMemory, kUntilAccepted},
    {"device_info.dimensions", "width and height of the screen, if the application gives them", kCompare, kMemory,
     kUntilAccepted},
    {"device_info.device_registration_token", "the token for push messages, if the application gives one",
     "addresses push messages to this device", kMemory, kUntilAccepted},

    {"app_info.app_name", "the application's name", kCompare, kMemory, kUntilAccepted},
    {"app_info.app_version", "the application's version and build", kCompare, kMemory, kUntilAccepted},
    {"app_info.bundle_id", "the application's identifier", kCompare, kMemory, kUntilAccepted},
    {"app_info.app_mode", "whether this is a release or a development build", kCompare, kMemory, kUntilAccepted},
    {"app_info.installation_time", "when the application's home was made", kUsage, kMemory, kUntilAccepted},
    {"sdk_info", "version and settings of the library, and when it started", kCompare, kSessionFiles, kUntilAccepted},
    {"sdk_version", "the version of the library", kCompare, kNowhere, kProcess},

    {"session_info.id", "an id of the session: its start time and the installation's id", kUsage, kSessionFiles,
     kUntilAccepted},
    {"session_info.launch_time", "when the session began", kUsage, kSessionFiles, kUntilAccepted},
    {"session_info.launch_time_string", "when the program was started", kUsage, kSessionFiles, kUntilAccepted},
    {"session_info.launch_type", "whether the session began with a launch or after a long absence", kUsage,
     kSessionFiles, kUntilAccepted},
    {"session_info.startup_time", "a constant", kUsage, kSessionFiles, kUntilAccepted},
    {"session_info.is_background", "a constant", kUsage, kSessionFiles, kUntilAccepted},
    {"session_info.is_first_session", "whether this is the installation's first session", kUsage, kSessionFiles,
     kUntilAccepted},
    {"session_info.process_name", "a constant", kUsage, kSessionFiles, kUntilAccepted},
    {"session_info.is_fatal", "whether the session ended with a crash, if a plug-in reports one", kFaults,
     kSessionFiles, kUntilAccepted},
    {"session_info.duration", "the seconds in the foreground", kUsage, kSessionFiles, kUntilAccepted},
    {"session_info.additional_info", "attributes of the session that the application sets", kEventsPurpose,
     kSessionFiles, kUntilAccepted},

    {"chunk_meta", "number, id and posting times of one part of a session's data", kDelivery, kDatabase,
     kUntilAccepted},
    {"chunk_details.user_attributes",
     "attributes of the user that the application sets, among them its own id of the user", kEventsPurpose, kUserFile,
     kUntilErased},
    {"chunk_details.session_attributes", "attributes of the session that the application sets", kEventsPurpose,
     kSessionFiles, kUntilAccepted},
    {"chunk_details.chunk_attributes.evicted",
     "how many events and chunks were deleted unsent, because the data had grown too large or too old", kDelivery,
     kDatabase, kUntilAccepted},
    {"chunk_details.chunk_attributes.ledger",
     "how many events were logged, stored, sent and dropped, if the application sends this", kDelivery, kDatabase,
     kUntilErased},
    {"chunk_details.agg_events", "how often each counted event and each value of its attributes occurred",
     kEventsPurpose, kDatabase, kUntilAccepted},
    {"chunk_details.system_events", "when the application came to the foreground and left it", kUsage, kDatabase,
     kUntilAccepted},
    {"chunk_details.navigation_events", "names of the screens that were shown, when, and for how many seconds",
     kEventsPurpose, kDatabase, kUntilAccepted},
    {"chunk_details.app_events",
     "the application's events: name, time, attributes, and how often the event has occurred so far", kEventsPurpose,
     kDatabase, kUntilAccepted},
    {"chunk_details.user_events", "interactions that a plug-in reports, and their time", kEventsPurpose, kDatabase,
     kUntilAccepted},
    {"chunk_details.incidents", "errors that the application or a plug-in reports: text, time, attributes", kFaults,
     kDatabase, kUntilAccepted},
    {"user_attributes", "the attributes of the user, at each launch", kEventsPurpose, kUserFile, kUntilErased},

    {"counts", "how often each event has occurred, the number of sessions, and the day of the first launch",
     "numbers the events; content that the service defines for plug-ins depends on it", "database and user defaults",
     kUntilErased},
    {"erase_secret", "a random text, made with the id of the installation",
     "proves to the service that a request to erase comes from this device", kDefaults, kUntilErased},
    {"consent", "the user's decision, and until the service confirms it, the id of an erased installation",
     "remembers the decision, and has the service erase its copy", "one file in the home", "with the home"},
    {"configuration", "settings, event names and content that the service sends to this installation",
     "controls what is collected and what plug-ins show", "files in the home", kUntilErased},
    {"ip_address", "the network address of the device, as in every request", "answers the request; the service sees it",
     kNowhere, "as the service documents"},
};

}  // namespace

Dictionary dataDescription() {
  Dictionary all;
  for (const Kind& kind : kKinds) {
    all.set(kind.name, Dictionary{{"what", std::string(kind.what)},
                                  {"purpose", std::string(kind.purpose)},
                                  {"stored", std::string(kind.stored)},
                                  {"kept", std::string(kind.kept)}});
  }
  return all;
}

}  // namespace kelvo
