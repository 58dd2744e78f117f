#include "parcel/NetworkInfo.h"

#include "binder/OrvelLogger.h"
#include "parcel/Int32.h"
#include "parcel/Record.h"
#include "parcel/String.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger s_logger("NetworkInfo");

}  // namespace

NetworkInfo NetworkInfo::read(vesk_buffer* buffer) {
  NetworkInfo info;
  if (!buffer) {
    s_logger.i("%s:Buffer is null", __func__);
    return info;
  }
  if (!record_follows(buffer)) {
    s_logger.i("%s:Parcel not ok", __func__);
    return info;
  }
  info.int1 = Int32::read(buffer);
  info.int2 = Int32::read(buffer);
  info.name1 = String::read(buffer);
  info.name2 = String::read(buffer);
  info.state = String::read(buffer);
  info.name4 = String::read(buffer);
  info.int3 = Int32::read(buffer);
  info.int4 = Int32::read(buffer);
  info.int5 = Int32::read(buffer);
  info.int6 = Int32::read(buffer);
  info.name5 = String::read(buffer);
  info.name6 = String::read(buffer);

  s_logger.i("%s:Read network state [%s]", __func__, info.state.c_str());
  if (info.state.empty() || info.state == "<unknown>") {
    // Nothing is emptied, whatever the text says; log readers look for it.
    s_logger.w("%s:Network state is [%s], returning empty string", __func__, info.state.c_str());
  }
  return info;
}

bool NetworkInfo::write(vesk_payload* /*payload*/) {
  return false;
}

bool NetworkInfo::isConnected() const {
  const bool connected = state == "CONNECTED";
  s_logger.i("%s:Device is [%s] to the network", __func__, connected ? "connected" : "not connected");
  return connected;
}

}  // namespace orvel::service_apis
