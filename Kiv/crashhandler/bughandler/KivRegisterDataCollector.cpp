#include "Kiv/crashhandler/bughandler/KivRegisterDataCollector.h"

#include "Core/Text/Format.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"

namespace {

struct Named {
  const char* name;
  std::uint64_t value;
};

void appendRow(core::StringBuilder& text, const Named (&row)[4]) noexcept {
  core::kiv_append(text, "%6s: %#018qx %6s: %#018qx %6s: %#018qx %6s: %#018qx\n", row[0].name, row[0].value,
                   row[1].name, row[1].value, row[2].name, row[2].value, row[3].name, row[3].value);
}

/// The kernel packs the selectors into one word.
std::uint64_t selector(const gregset_t& registers, unsigned position) noexcept {
  return static_cast<std::uint64_t>(registers[REG_CSGSFS]) >> (16 * position) & 0xffff;
}

}  // namespace

KivRegisterDataCollector& KivRegisterDataCollector::sharedInstance() noexcept {
  static KivRegisterDataCollector collector;  // trivially destructible, so never destroyed
  return collector;
}

void KivRegisterDataCollector::collectAllRegisterInfos(std::uint32_t index, const mcontext_t& context, bool) noexcept {
  KivCrashData::expData().setRegisterDatas(textOf(index, context.gregs));
}

core::String KivRegisterDataCollector::textOf(std::uint32_t index, const gregset_t& registers) noexcept {
  const auto value = [&registers](int number) { return static_cast<std::uint64_t>(registers[number]); };
  core::StringBuilder text(512);
  core::kiv_append(text, "\nThread %u crashed with X86_64 Thread State:\n", index);
  appendRow(text, {{"rax", value(REG_RAX)}, {"rbx", value(REG_RBX)}, {"rcx", value(REG_RCX)}, {"rdx", value(REG_RDX)}});
  appendRow(text, {{"rsi", value(REG_RSI)}, {"rdi", value(REG_RDI)}, {"rbp", value(REG_RBP)}, {"rsp", value(REG_RSP)}});
  core::kiv_append(text, "    r8: %#018qx     r9: %#018qx    r10: %#018qx    r11: %#018qx\n", value(REG_R8),
                   value(REG_R9), value(REG_R10), value(REG_R11));
  core::kiv_append(text, "    r12: %#018qx     r13: %#018qx    r14: %#018qx    r15: %#018qx\n", value(REG_R12),
                   value(REG_R13), value(REG_R14), value(REG_R15));
  appendRow(text, {{"rflags", value(REG_EFL)},
                   {"cs", selector(registers, 0)},
                   {"fs", selector(registers, 2)},
                   {"gs", selector(registers, 1)}});
  return text.str();
}
