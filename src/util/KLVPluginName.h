#pragma once

#include <string>
#include <string_view>

namespace kelvo {

/// The first word of the text that `KELVO_PLUGIN` compiles into a program, or into a shared object.
inline constexpr std::string_view kPluginMark = "KELVO_PLUGIN ";

/// Returns the name of the class in the text that `KELVO_PLUGIN` registers: "Nag" for "KELVO_PLUGIN acme::Nag".
inline std::string_view pluginName(std::string_view text) {
  return text.substr(text.find_last_of(": ") + 1);
}

/// Returns the name of the plug-in's shared object, without the extension "so".
inline std::string pluginObject(std::string_view name) {
  return "libkelvo-" + std::string(name);
}

}  // namespace kelvo
