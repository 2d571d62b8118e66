#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "Core/PropertyList/ArchivedProperties.h"

/// Base of the models that are kept on disk as keyed archives: crashes and stalls, session
/// summaries, the strategy. A model derives from KivArchivedObject and lists its properties.
///
/// Plain data of one thread, never deleted as a KivLocalObject; encoding and decoding are fit for the
/// crash path.
class KivLocalObject {
 public:
  static constexpr std::string_view kClassName = "KivLocalObject";

  std::int64_t time = 0;    ///< milliseconds since 1970
  std::int32_t dcount = 0;  ///< occurrences that were not uploaded yet
  std::optional<core::String> md5;
  std::int64_t encLen = 0;  ///< bytes of the archive last written or read

  /// The object's archive; encLen becomes its length.
  core::Data encodeData() noexcept;

  /// Takes over what the archive holds; encLen becomes the data's length. False, with a line
  /// in the log and nothing changed, for no data and for what is no archive of this class.
  bool setEncodeData(std::span<const std::uint8_t> data) noexcept;

  friend bool operator==(const KivLocalObject&, const KivLocalObject&) = default;

  static constexpr auto kProperties = core::archive::properties(
      core::archive::property("time", &KivLocalObject::time),
      core::archive::property("dcount", &KivLocalObject::dcount), core::archive::property("md5", &KivLocalObject::md5),
      core::archive::property("encLen", &KivLocalObject::encLen));

 protected:
  KivLocalObject() noexcept = default;
  KivLocalObject(const KivLocalObject&) noexcept = default;
  KivLocalObject(KivLocalObject&&) noexcept = default;
  KivLocalObject& operator=(const KivLocalObject&) noexcept = default;
  KivLocalObject& operator=(KivLocalObject&&) noexcept = default;
  ~KivLocalObject() = default;

 private:
  virtual std::string_view className() const noexcept = 0;
  virtual core::Data archive() const noexcept = 0;
  /// nullptr, or why nothing was taken.
  virtual const char* unarchive(std::span<const std::uint8_t> data) noexcept = 0;
};

/// What a model derives from, with itself as `Self`: it has kClassName and kProperties.
template <class Self>
class KivArchivedObject : public KivLocalObject {
 public:
  using Superclass = KivLocalObject;

  friend bool operator==(const KivArchivedObject&, const KivArchivedObject&) = default;

 private:
  std::string_view className() const noexcept override { return Self::kClassName; }
  core::Data archive() const noexcept override { return core::archive::archived(static_cast<const Self&>(*this)); }
  const char* unarchive(std::span<const std::uint8_t> data) noexcept override {
    Self& self = static_cast<Self&>(*this);
    auto read = core::archive::unarchived(data, self);
    if (!read) {
      return read.error().reason;
    }
    self = std::move(*read);
    return nullptr;
  }
};
