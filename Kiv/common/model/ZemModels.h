#pragma once

#include <optional>

#include "Core/Memory/Array.h"
#include "Core/Memory/String.h"

/// How models fill their records: records know no nil, only what is empty.
inline core::String orEmpty(const std::optional<core::String>& text) noexcept {
  return text ? *text : core::String();
}

/// nil for the empty text of a record.
inline std::optional<core::String> orNil(const core::String& text) noexcept {
  return text.empty() ? std::nullopt : std::optional(text);
}

/// The records of a list of models.
template <class Record, class Model>
core::Array<Record> zemModels(const core::Array<Model>& models) {
  core::Array<Record> records;
  records.reserve(models.size());
  for (const Model& model : models) {
    model.createZEMModel(records.emplace());
  }
  return records;
}
