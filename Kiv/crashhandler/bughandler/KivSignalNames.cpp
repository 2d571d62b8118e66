#include "Kiv/crashhandler/bughandler/KivSignalNames.h"

#include <cstddef>

namespace {

struct SignalName {
  int number;
  const char* name;
};

// Searched front to back, so that 6 is always SIGABRT. This platform has no SIGEMT and no SIGINFO.
constexpr SignalName kiv_signal_names[] = {
    {SIGHUP, "SIGHUP"},       {SIGINT, "SIGINT"},   {SIGQUIT, "SIGQUIT"},   {SIGILL, "SIGILL"},   {SIGTRAP, "SIGTRAP"},
    {SIGABRT, "SIGABRT"},     {SIGIOT, "SIGIOT"},   {SIGFPE, "SIGFPE"},     {SIGKILL, "SIGKILL"}, {SIGBUS, "SIGBUS"},
    {SIGSEGV, "SIGSEGV"},     {SIGSYS, "SIGSYS"},   {SIGPIPE, "SIGPIPE"},   {SIGALRM, "SIGALRM"}, {SIGTERM, "SIGTERM"},
    {SIGURG, "SIGURG"},       {SIGSTOP, "SIGSTOP"}, {SIGTSTP, "SIGTSTP"},   {SIGCONT, "SIGCONT"}, {SIGCHLD, "SIGCHLD"},
    {SIGTTIN, "SIGTTIN"},     {SIGTTOU, "SIGTTOU"}, {SIGIO, "SIGIO"},       {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"},
    {SIGVTALRM, "SIGVTALRM"}, {SIGPROF, "SIGPROF"}, {SIGWINCH, "SIGWINCH"}, {SIGUSR1, "SIGUSR1"}, {SIGUSR2, "SIGUSR2"},
};

struct SignalCode {
  int signal;
  int code;
  const char* name;
};

constexpr SignalCode kiv_signal_codes[] = {
    {SIGILL, 0, "ILL_NOOP"},
    {SIGILL, ILL_ILLOPC, "ILL_ILLOPC"},
    {SIGILL, ILL_ILLTRP, "ILL_ILLTRP"},
    {SIGILL, ILL_PRVOPC, "ILL_PRVOPC"},
    {SIGILL, ILL_ILLOPN, "ILL_ILLOPN"},
    {SIGILL, ILL_ILLADR, "ILL_ILLADR"},
    {SIGILL, ILL_PRVREG, "ILL_PRVREG"},
    {SIGILL, ILL_COPROC, "ILL_COPROC"},
    {SIGILL, ILL_BADSTK, "ILL_BADSTK"},
    {SIGFPE, 0, "FPE_NOOP"},
    {SIGFPE, FPE_FLTDIV, "FPE_FLTDIV"},
    {SIGFPE, FPE_FLTOVF, "FPE_FLTOVF"},
    {SIGFPE, FPE_FLTUND, "FPE_FLTUND"},
    {SIGFPE, FPE_FLTRES, "FPE_FLTRES"},
    {SIGFPE, FPE_FLTINV, "FPE_FLTINV"},
    {SIGFPE, FPE_FLTSUB, "FPE_FLTSUB"},
    {SIGFPE, FPE_INTDIV, "FPE_INTDIV"},
    {SIGFPE, FPE_INTOVF, "FPE_INTOVF"},
    {SIGSEGV, 0, "SEGV_NOOP"},
    {SIGSEGV, SEGV_MAPERR, "SEGV_MAPERR"},
    {SIGSEGV, SEGV_ACCERR, "SEGV_ACCERR"},
    {SIGBUS, 0, "BUS_NOOP"},
    {SIGBUS, BUS_ADRALN, "BUS_ADRALN"},
    {SIGBUS, BUS_ADRERR, "BUS_ADRERR"},
    {SIGBUS, BUS_OBJERR, "BUS_OBJERR"},
    {SIGTRAP, TRAP_BRKPT, "TRAP_BRKPT"},
    {SIGTRAP, TRAP_TRACE, "TRAP_TRACE"},
};

void writeDecimal(char* out, int value) noexcept {
  char digits[11];
  std::size_t count = 0;
  unsigned magnitude = value < 0 ? 0U - static_cast<unsigned>(value) : static_cast<unsigned>(value);
  do {
    digits[count++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  if (value < 0) {
    *out++ = '-';
  }
  while (count != 0) {
    *out++ = digits[--count];
  }
  *out = '\0';
}

}  // namespace

void kiv_map_sig_name(const siginfo_t* info, char* buffer, const char*& name, const char*& code) noexcept {
  constexpr std::size_t kCodeOffset = 15;
  writeDecimal(buffer, info->si_signo);
  writeDecimal(buffer + kCodeOffset, info->si_code);
  name = buffer;
  code = buffer + kCodeOffset;
  for (const SignalName& row : kiv_signal_names) {
    if (row.number == info->si_signo) {
      name = row.name;
      break;
    }
  }
  for (const SignalCode& row : kiv_signal_codes) {
    if (row.signal == info->si_signo && row.code == info->si_code) {
      code = row.name;
      break;
    }
  }
}
