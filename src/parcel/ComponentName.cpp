#include "orvel/ComponentName.h"

#include "parcel/String.h"

namespace orvel::service_apis {

bool ComponentName::good() const {
  return !package_name.empty() && !class_name.empty();
}

ComponentName ComponentName::read(vesk_buffer* buffer) {
  ComponentName component;
  component.package_name = String::read(buffer);
  // The remote side writes no class after a null package.
  if (!component.package_name.empty()) component.class_name = String::read(buffer);
  return component;
}

bool ComponentName::write(vesk_payload* payload) const {
  const bool package_written = String::write(payload, package_name);
  return String::write(payload, class_name) && package_written;
}

}  // namespace orvel::service_apis
