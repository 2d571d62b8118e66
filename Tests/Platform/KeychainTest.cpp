#include "Platform/Security/Keychain.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Platform/Foundation/PropertyListFile.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using core::Value;
using platform::KeychainItem;
using platform::KeychainStatus;

core::Data bytes(std::string_view text) {
  return core::Data(text.data(), text.size());
}

class KeychainTest : public testing::Test {
 protected:
  KeychainStatus statusOf(std::string_view account, std::string_view service) const {
    const auto found = keychain_.find(account, service);
    return found ? platform::errSecSuccess : found.error();
  }

  test::TemporaryDirectory directory_;
  std::string path_ = directory_.file("Keychain/passwords.plist");
  platform::Keychain keychain_{path_};
  const KeychainItem item_{.account = "me", .service = "mail", .label = "mail of me", .accessibility = "ak"};
};

TEST_F(KeychainTest, AccountAndServiceTellItemsApart) {
  EXPECT_EQ(statusOf("me", "mail"), platform::errSecItemNotFound);
  EXPECT_FALSE(fs::exists(directory_.file("Keychain")));
  KeychainItem other = item_;
  other.service = "news";
  other.data = bytes(std::string_view("a\0\xff", 3));
  ASSERT_EQ(keychain_.add(item_), platform::errSecSuccess);
  EXPECT_EQ(keychain_.add({.account = "me", .service = "mail"}), platform::errSecDuplicateItem);
  EXPECT_EQ(keychain_.add(other), platform::errSecSuccess);
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms(0600));
  EXPECT_EQ(fs::status(directory_.file("Keychain")).permissions(), fs::perms(0700));
  EXPECT_EQ(*keychain_.find("me", "mail"), item_);
  EXPECT_EQ(*keychain_.find("me", "news"), other);
  EXPECT_EQ(statusOf("", "mail"), platform::errSecItemNotFound);
  EXPECT_EQ(keychain_.remove("you", "mail"), platform::errSecItemNotFound);
  EXPECT_EQ(keychain_.remove("me", "mail"), platform::errSecSuccess);
  EXPECT_EQ(statusOf("me", "mail"), platform::errSecItemNotFound);
  EXPECT_EQ(statusOf("me", "news"), platform::errSecSuccess);
}

TEST_F(KeychainTest, AnUpdateNeedsTheAttributesThatItNames) {
  ASSERT_EQ(keychain_.add(item_), platform::errSecSuccess);
  for (const auto member : {&KeychainItem::itemClass, &KeychainItem::account, &KeychainItem::service,
                            &KeychainItem::label, &KeychainItem::accessibility}) {
    KeychainItem query = item_;
    query.*member = "other";
    EXPECT_EQ(keychain_.update(query, bytes("wrong")), platform::errSecItemNotFound);
  }
  for (const KeychainItem& query : {item_, KeychainItem{.account = "me", .service = "mail"}}) {
    KeychainItem expected = item_;
    expected.data = bytes("new" + query.label.str());
    EXPECT_EQ(keychain_.update(query, *expected.data), platform::errSecSuccess);
    EXPECT_EQ(*keychain_.find("me", "mail"), expected);
  }
}

TEST_F(KeychainTest, TheFileIsNeverLost) {
  const core::ValueDictionary others{
      {"Items", Value(core::ValueArray{Value("?"), Value(core::ValueDictionary{{"Later", Value("x")}})})},
      {"Version", Value(2)}};
  fs::create_directory(directory_.file("Keychain"));
  ASSERT_EQ(platform::writeStoredPropertyList(path_, others), 0);
  EXPECT_EQ(keychain_.add(item_), platform::errSecSuccess);
  EXPECT_EQ(keychain_.remove("me", "mail"), platform::errSecSuccess);
  EXPECT_EQ(platform::readStoredPropertyList(path_).content, others);

  const test::LogCapture log;
  std::ofstream(path_) << "bplist00 damaged";
  EXPECT_EQ(statusOf("me", "mail"), platform::errSecItemNotFound);
  EXPECT_TRUE(test::LogCapture::tookOne(path_));
  fs::create_symlink(path_, path_);
  EXPECT_EQ(keychain_.add(item_), platform::errSecIO);
  EXPECT_TRUE(fs::is_symlink(path_));
}

}  // namespace
