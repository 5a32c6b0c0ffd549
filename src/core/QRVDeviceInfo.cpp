#include "core/QRVDeviceInfo.h"

#include "capabilities/QRVCapabilities.h"

namespace quorvix {
namespace {

// The value of one os-release assignment: shell-style quoting, with backslash escapes inside
// double quotes and outside quotes.
std::optional<std::string> unquote(std::string_view v) {
  std::string out;
  char quote = 0;
  for (std::size_t i = 0; i < v.size(); ++i) {
    char c = v[i];
    if (quote == '\'') {
      if (c == '\'')
        quote = 0;
      else
        out += c;
    } else if (c == '\\') {
      if (++i == v.size())
        return std::nullopt;
      out += v[i];
    } else if (c == '"' && quote == '"') {
      quote = 0;
    } else if ((c == '"' || c == '\'') && !quote) {
      quote = c;
    } else if (!quote && (c == ' ' || c == '\t')) {
      return std::nullopt;  // unquoted whitespace is not a valid assignment
    } else {
      out += c;
    }
  }
  if (quote)
    return std::nullopt;
  return out;
}

Value orNull(const std::optional<std::string>& v) {
  return v ? Value(*v) : Value();
}

}  // namespace

std::optional<std::string> QRVSystemInfo::osVersionFromOSRelease(std::string_view text) {
  std::optional<std::string> pretty, name, version, versionId;
  while (!text.empty()) {
    auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
      line.remove_prefix(1);
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t' || line.back() == '\r'))
      line.remove_suffix(1);
    if (line.empty() || line.front() == '#')
      continue;
    auto eq = line.find('=');
    if (eq == std::string_view::npos)
      continue;
    std::string_view key = line.substr(0, eq);
    auto value = unquote(line.substr(eq + 1));
    if (!value || value->empty())
      continue;
    if (key == "PRETTY_NAME")
      pretty = value;
    else if (key == "NAME")
      name = value;
    else if (key == "VERSION")
      version = value;
    else if (key == "VERSION_ID")
      versionId = value;
  }
  if (pretty)
    return pretty;
  if (name && (version || versionId))
    return *name + " " + (version ? *version : *versionId);
  return name;
}

std::optional<std::string> QRVSystemInfo::localeFromEnvironment(
    const std::function<const char*(const char*)>& getenv) {
  std::string_view chosen;
  // LANGUAGE is a priority list, consulted only when a locale is set at all.
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* v = getenv(name);
    if (v && *v) {
      chosen = v;
      break;
    }
  }
  if (chosen.empty())
    return std::nullopt;
  const std::string_view base = chosen.substr(0, chosen.find_first_of(".@"));
  if (base != "C" && base != "POSIX") {
    if (const char* language = getenv("LANGUAGE"); language && *language) {
      std::string_view list = language;
      std::string_view first = list.substr(0, list.find(':'));
      if (!first.empty())
        chosen = first;
    }
  }
  std::string_view tag = chosen.substr(0, chosen.find_first_of(".@"));
  if (tag.empty() || tag == "C" || tag == "POSIX")
    return "en";
  std::string out(tag);
  for (char& c : out)
    if (c == '_')
      c = '-';
  return out;
}

Value::Map QRVDeviceInfo::info() {
  return info(QRVSystemInfo::current(), QRVBundle::main());
}

Value::Map QRVDeviceInfo::info(const QRVSystemInfo& system, const QRVBundle& bundle) {
  Value::Array capabilities;
  for (auto name : QRVCapabilities::kNames)
    capabilities.emplace_back(name);
  Value::Map info{
      {"platform", kPlatform},
      {"device", orNull(system.machine)},
      {"device_locale", orNull(system.locale)},
      {"device_timezone", orNull(system.timeZone)},
      {"os_version", orNull(system.osVersion)},
      {"app_id", bundle.identifier},
      {"app_name", bundle.displayName},
      {"app_version", bundle.shortVersion},
      {"app_build", bundle.version},
      {"app_build_configuration", "release"},
      {"sdk_version", kSDKVersion},
      {"video_codecs", Value::Array{kH264MimeType, kJPEGMimeType}},
      {"capabilities", std::move(capabilities)},
  };
  if (auto extension = bundle.setting("QRVBroadcastExtension"))
    info["broadcast_extension_id"] = *extension;
  return info;
}

std::optional<Value> QRVDeviceInfo::broadcastExtension() {
  return QRVBundle::main().setting("QRVBroadcastExtension");
}

}  // namespace quorvix
