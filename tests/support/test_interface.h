// VolumeInterface: an API-family interface written by hand in the shape the code generator gives
// it: a TezaInterface with the family's number and name, the APIs' wire names, and one method
// per API that calls the invoke variant matching the API's records. Input records are taken
// by const reference, so that they reach the input overload of invoke and never the output
// one.
//
// APIs of family 41 ("volume"), with the test records of test_records.h:
//   kSystemPing         "system-ping"          no input, no output
//   kVolumeGetInfo      "volume-get-info"      output VolumeInfo
//   kVolumeCreate       "volume-create"        input VolumeInfo
//   kVolumeSetOwner     "volume-set-owner"     input VolumeInfo, output OwnerInfo
#ifndef TEZA_TESTS_TEST_INTERFACE_H_
#define TEZA_TESTS_TEST_INTERFACE_H_

#include <string>

#include "TezaInterface.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "test_records.h"

namespace teza_volume {

class VolumeInterface : public TezaInterface {
  public:
    static const int kInterfaceId = 41;
    enum Api { kSystemPing, kVolumeGetInfo, kVolumeCreate, kVolumeSetOwner, kNumApis };

    // As generated interfaces do: the trace settings are handed on to TezaInterface.
    explicit VolumeInterface(const TezaServerConnection& connection, const bool& forceTrace = false,
                             void* traceHandle = nullptr, const char* traceLabel = nullptr);
    ~VolumeInterface() override;

    int getInterfaceId() const override;
    const char* getInterfaceName() const override;
    const std::string& getApiName(int api) const override;

    TezaStatus systemPing();
    TezaStatus volumeGetInfo(teza_store::VolumeInfo& output);
    TezaStatus volumeCreate(const teza_store::VolumeInfo& input);
    TezaStatus volumeSetOwner(const teza_store::VolumeInfo& input, teza_store::OwnerInfo& output);
};

}  // namespace teza_volume

#endif  // TEZA_TESTS_TEST_INTERFACE_H_
