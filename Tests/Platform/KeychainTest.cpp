#include "Platform/Security/Keychain.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Core/PropertyList/BinaryPropertyList.h"
#include "Platform/Foundation/PropertyListFile.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using platform::Keychain;
using platform::KeychainItem;
using platform::KeychainStatus;

core::Data bytes(std::string_view text) {
  return core::Data(text.data(), text.size());
}

class KeychainTest : public testing::Test {
 protected:
  static KeychainStatus statusOf(const core::Result<KeychainItem, KeychainStatus>& found) {
    return found ? platform::errSecSuccess : found.error();
  }

  test::TemporaryDirectory directory_;
  std::string path_ = directory_.file("Keychain/passwords.plist");
  Keychain keychain_{path_};
  KeychainItem item_{.account = "me",
                     .service = "mail",
                     .label = "mail of me",
                     .accessibility = platform::kSecAttrAccessibleWhenUnlocked,
                     .data = bytes(std::string_view("a\0\xff", 3))};
};

TEST_F(KeychainTest, AnItemIsKeptWithAllItHas) {
  EXPECT_EQ(statusOf(keychain_.find("me", "mail")), platform::errSecItemNotFound);
  EXPECT_FALSE(fs::exists(directory_.file("Keychain")));
  ASSERT_EQ(keychain_.add(item_), platform::errSecSuccess);
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(directory_.file("Keychain")).permissions(), fs::perms(0700));
  const auto found = Keychain(path_).find("me", "mail");
  ASSERT_TRUE(found);
  EXPECT_EQ(*found, item_);
}

TEST_F(KeychainTest, AccountAndServiceTellItemsApart) {
  ASSERT_EQ(keychain_.add(item_), platform::errSecSuccess);
  EXPECT_EQ(keychain_.add({.account = "me", .service = "mail"}), platform::errSecDuplicateItem);
  EXPECT_EQ(keychain_.add({.account = "me", .service = "news", .data = bytes("n")}), platform::errSecSuccess);
  EXPECT_EQ(keychain_.add({.account = "you", .service = "mail", .data = bytes("y")}), platform::errSecSuccess);
  EXPECT_EQ(statusOf(keychain_.find("", "mail")), platform::errSecItemNotFound);
  EXPECT_EQ(keychain_.remove("me", "web"), platform::errSecItemNotFound);
  EXPECT_EQ(keychain_.remove("me", "mail"), platform::errSecSuccess);
  EXPECT_EQ(statusOf(keychain_.find("me", "mail")), platform::errSecItemNotFound);
  EXPECT_EQ(keychain_.find("me", "news")->data, bytes("n"));
  EXPECT_EQ(keychain_.find("you", "mail")->data, bytes("y"));
}

TEST_F(KeychainTest, AnUpdateNeedsTheAttributesThatItNames) {
  ASSERT_EQ(keychain_.add(item_), platform::errSecSuccess);
  const struct {
    KeychainItem query;
    KeychainStatus status;
  } cases[] = {
      {{.account = "me", .service = "mail"}, platform::errSecSuccess},
      {{.account = "me", .service = "mail", .label = "mail of me"}, platform::errSecSuccess},
      {{.account = "me", .service = "mail", .label = "mail"}, platform::errSecItemNotFound},
      {{.account = "me", .service = "mail", .accessibility = "always"}, platform::errSecItemNotFound},
      {{.account = "me", .service = ""}, platform::errSecItemNotFound},
      {{.itemClass = "inet", .account = "me", .service = "mail"}, platform::errSecItemNotFound},
  };
  int number = 0;
  for (const auto& [query, status] : cases) {
    const core::Data before = *keychain_.find("me", "mail")->data;
    const core::Data after = bytes(std::to_string(++number));
    EXPECT_EQ(keychain_.update(query, after), status) << number;
    EXPECT_EQ(keychain_.find("me", "mail")->data, status == platform::errSecSuccess ? after : before) << number;
  }
  EXPECT_EQ(keychain_.find("me", "mail")->label, "mail of me");
}

TEST_F(KeychainTest, AnItemMayHaveLostItsData) {
  item_.data.reset();
  ASSERT_EQ(keychain_.add(item_), platform::errSecSuccess);
  const auto found = keychain_.find("me", "mail");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->data, std::nullopt);
  EXPECT_EQ(keychain_.update(item_, bytes("new")), platform::errSecSuccess);
  EXPECT_EQ(keychain_.find("me", "mail")->data, bytes("new"));
}

TEST_F(KeychainTest, OtherEntriesOfTheFileAreKept) {
  const core::Value other(core::ValueDictionary{{"Class", core::Value(7)}, {"Later", core::Value("x")}});
  fs::create_directory(directory_.file("Keychain"));
  ASSERT_EQ(platform::writeStoredPropertyList(path_, {{"Items", core::Value(core::ValueArray{core::Value("?"), other})},
                                                      {"Version", core::Value(2)}}),
            0);
  ASSERT_EQ(keychain_.add(item_), platform::errSecSuccess);
  ASSERT_EQ(keychain_.remove("me", "mail"), platform::errSecSuccess);
  const auto stored = platform::readStoredPropertyList(path_).content;
  EXPECT_EQ(stored, (core::ValueDictionary{{"Items", core::Value(core::ValueArray{core::Value("?"), other})},
                                           {"Version", core::Value(2)}}));
}

TEST_F(KeychainTest, ADamagedFileIsSetAsideAndAnUnreadableOneLeftAlone) {
  const test::LogCapture log;
  fs::create_directory(directory_.file("Keychain"));
  std::ofstream(path_) << "bplist00 damaged";
  EXPECT_EQ(statusOf(keychain_.find("me", "mail")), platform::errSecItemNotFound);
  EXPECT_TRUE(test::LogCapture::tookOne(path_));
  EXPECT_EQ(keychain_.add(item_), platform::errSecSuccess);
  fs::remove(path_);
  fs::create_symlink(path_, path_);
  EXPECT_EQ(keychain_.add(item_), platform::errSecIO);
  EXPECT_TRUE(fs::is_symlink(path_));
}

}  // namespace
