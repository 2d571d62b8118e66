#include "Kiv/crashhandler/bughandler/KivMachImageInfo.h"

#include "Core/Text/Format.h"

core::String KivMachImageInfo::description() const noexcept {
  return core::kiv_format("%llu - %llu %@ %@ <%@> %@", base, base + size, sname, cpu, uuid, name);
}
