#include "test_interface.h"

namespace teza_volume {

namespace {

// Indexed by VolumeInterface::Api; lives as long as the program, so every name stays valid
// for the whole of any call.
const std::string kApiNames[VolumeInterface::kNumApis] = {
    "system-ping",
    "volume-get-info",
    "volume-create",
    "volume-set-owner",
};

}  // namespace

VolumeInterface::VolumeInterface(const TezaServerConnection& connection, const bool& forceTrace,
                                 void* traceHandle, const char* traceLabel)
    : TezaInterface(connection, forceTrace, traceHandle, traceLabel) {}

VolumeInterface::~VolumeInterface() {}

int VolumeInterface::getInterfaceId() const {
    return kInterfaceId;
}

const char* VolumeInterface::getInterfaceName() const {
    return "volume";
}

const std::string& VolumeInterface::getApiName(int api) const {
    return kApiNames[api];
}

TezaStatus VolumeInterface::systemPing() {
    return invoke(kSystemPing);
}

TezaStatus VolumeInterface::volumeGetInfo(teza_store::VolumeInfo& output) {
    return invoke(kVolumeGetInfo, output);
}

TezaStatus VolumeInterface::volumeCreate(const teza_store::VolumeInfo& input) {
    return invoke(kVolumeCreate, input);
}

TezaStatus VolumeInterface::volumeSetOwner(const teza_store::VolumeInfo& input,
                                           teza_store::OwnerInfo& output) {
    return invoke(kVolumeSetOwner, input, output);
}

}  // namespace teza_volume
