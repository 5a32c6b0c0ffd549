#include "core/QRVDeviceInfo.h"

#include <gtest/gtest.h>

#include "capabilities/QRVCapabilities.h"
#include "push/QRVPush.h"

namespace quorvix {
namespace {

TEST(QRVDeviceInfoTest, DescribesTheSystemAndTheHostsBundle) {
  QRVSystemInfo system{"aarch64", "de-AT", "CET", "Debian GNU/Linux 12 (bookworm)"};
  QRVBundle bundle;
  bundle.identifier = "com.example.helpdesk";
  bundle.displayName = "Helpdesk";
  bundle.shortVersion = "2.4";
  bundle.version = "240";
  Value::Map info = QRVDeviceInfo::info(system, bundle);
  EXPECT_EQ(Value(info),
            Value(Value::Map{
                {"platform", "linux"},
                {"device", "aarch64"},
                {"device_locale", "de-AT"},
                {"device_timezone", "CET"},
                {"os_version", "Debian GNU/Linux 12 (bookworm)"},
                {"app_id", "com.example.helpdesk"},
                {"app_name", "Helpdesk"},
                {"app_version", "2.4"},
                {"app_build", "240"},
                {"app_build_configuration", "release"},
                {"sdk_version", "3.13.2"},
                {"video_codecs", Value::Array{"video/avc", "image/jpeg"}},
                {"capabilities",
                 Value::Array{"pointer", "keypress", "drawing", "disappearing_ink", "arrows",
                              "rectangles", "laser", "selectors", "full_device"}},
            }));

  // What the system cannot tell is sent as null; the extension only when the host names one.
  bundle.settings["QRVBroadcastExtension"] = "com.example.helpdesk.broadcast";
  info = QRVDeviceInfo::info(QRVSystemInfo{}, bundle);
  EXPECT_EQ(info["device_locale"], Value());
  EXPECT_EQ(info["os_version"], Value());
  EXPECT_EQ(info["broadcast_extension_id"], Value("com.example.helpdesk.broadcast"));

  QRVSystemInfo here = QRVSystemInfo::current();
  EXPECT_TRUE(here.machine && !here.machine->empty());
  EXPECT_TRUE(here.timeZone && !here.timeZone->empty());
}

TEST(QRVDeviceInfoTest, OSVersionFromOSRelease) {
  using S = QRVSystemInfo;
  EXPECT_EQ(S::osVersionFromOSRelease("NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\n"
                                      "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"),
            "Debian GNU/Linux 12 (bookworm)");
  EXPECT_EQ(S::osVersionFromOSRelease("# comment\nNAME=Fedora\r\nVERSION='39 (Workstation)'\n"),
            "Fedora 39 (Workstation)");
  EXPECT_EQ(S::osVersionFromOSRelease("NAME=Arch\nVERSION_ID=rolling"), "Arch rolling");
  EXPECT_EQ(S::osVersionFromOSRelease("PRETTY_NAME=\"A \\\"quoted\\\" \\$name\""),
            "A \"quoted\" $name");
  EXPECT_EQ(S::osVersionFromOSRelease("NAME=Solo"), "Solo");
  EXPECT_EQ(S::osVersionFromOSRelease("PRETTY_NAME=\"unterminated\nNAME=two words\n"),
            std::nullopt);
  EXPECT_EQ(S::osVersionFromOSRelease(""), std::nullopt);
}

TEST(QRVDeviceInfoTest, LocaleFromTheEnvironment) {
  auto locale = [](std::map<std::string, std::string> env) {
    return QRVSystemInfo::localeFromEnvironment([&](const char* name) -> const char* {
      auto it = env.find(name);
      return it == env.end() ? nullptr : it->second.c_str();
    });
  };
  EXPECT_EQ(locale({{"LANG", "de_AT.UTF-8"}}), "de-AT");
  EXPECT_EQ(locale({{"LANG", "en_US.UTF-8"}, {"LC_MESSAGES", "fr_FR@euro"}}), "fr-FR");
  EXPECT_EQ(locale({{"LANG", "en_US.UTF-8"}, {"LC_ALL", "pt_BR"}, {"LC_MESSAGES", "fr_FR"}}),
            "pt-BR");
  EXPECT_EQ(locale({{"LANG", "en_GB.UTF-8"}, {"LANGUAGE", "nl:en"}}), "nl");
  EXPECT_EQ(locale({{"LANG", "C.UTF-8"}, {"LANGUAGE", "nl:en"}}), "en")
      << "LANGUAGE is ignored under the C locale";
  EXPECT_EQ(locale({{"LANG", "POSIX"}}), "en");
  EXPECT_EQ(locale({{"LANG", ""}}), std::nullopt);
  EXPECT_EQ(locale({}), std::nullopt);
}

TEST(QRVPushTest, RecognisesTheServicesPayloads) {
  using P = QRVPush;
  EXPECT_TRUE(P::isQuorviNotification({{"quorvix-notification", true}}));
  EXPECT_TRUE(P::isQuorviNotification({{"quorvix-notification", 1}}));
  EXPECT_TRUE(P::isQuorviNotification({{"quorvix-notification", 0.5}}));
  EXPECT_TRUE(P::isQuorviNotification({{"quorvix-notification", "true"}}));
  EXPECT_FALSE(P::isQuorviNotification({{"quorvix-notification", "TRUE"}}));
  EXPECT_FALSE(P::isQuorviNotification({{"quorvix-notification", "1"}}));
  EXPECT_FALSE(P::isQuorviNotification({{"quorvix-notification", 0}}));
  EXPECT_FALSE(P::isQuorviNotification({{"quorvix-notification", Value::Map{}}}));
  EXPECT_FALSE(P::isQuorviNotification({{"quorvix-code", "123"}}));
}

TEST(QRVCapabilitiesTest, OnlyNamesAlreadySetCanBeToggled) {
  QRVCapabilities caps({"pointer", "laser"});
  caps.toggleMultiple({"laser", "keypress"}, false);
  EXPECT_EQ(caps.all(), (std::map<std::string, int, std::less<>>{{"laser", 0}, {"pointer", 1}}));
  EXPECT_EQ(caps.toArray(), std::vector<std::string>{"pointer"});
  caps.fill({"laser"});
  EXPECT_EQ(caps.toArray(), (std::vector<std::string>{"laser", "pointer"}));
}

}  // namespace
}  // namespace quorvix
