#include "parcel/NetworkInfo.h"

#include "binder/OrvelLogger.h"
#include "parcel/Record.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger& s_logger = *new OrvelLogger("NetworkInfo");

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
  read_members(buffer, info.int1, info.int2, info.name1, info.name2, info.state, info.name4, info.int3, info.int4,
               info.int5, info.int6, info.name5, info.name6);

  s_logger.i("%s:Read network state [%s]", __func__, info.state.c_str());
  if (info.state.empty() || info.state == "<unknown>") {
    // Unlike the text says, nothing is emptied; log readers look for the text.
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
