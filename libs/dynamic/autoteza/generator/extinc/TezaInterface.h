// TezaInterface: the base class of every generated API-family interface. A generated interface
// holds one server connection descriptor and offers one method per API, each of which calls
// one of the four invoke operations with the API's index and its input and output records.
// invoke does the whole exchange: it takes a tag, opens (or reuses) the server handle, builds,
// traces and sends the request, traces the response, turns the result into a TezaStatus, fills
// the output record, counts success or failure on the API's tracker and hands the handle back
// to the connection cache or closes it.
//
// Any number of threads may invoke at once on different interface objects. One interface
// object is not safe for concurrent calls: its descriptor carries the open handle between the
// steps of a call. The process-wide tag counter is guarded by its own mutex.
#ifndef TEZA_INTERFACE_H_
#define TEZA_INTERFACE_H_

#include <string>

#include "TezaFieldType.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaUtil.h"
#include "rk.h"

class TEZA_API TezaInterface {
  public:
    // Copies `connection` (the copy starts closed) and `forceTrace`; keeps `traceHandle` and
    // `traceLabel` as they are. A non-null `traceHandle` turns the trace hook on for every
    // call; a non-null `traceLabel` is passed to the tracer in place of the API name and must
    // outlive the interface.
    TezaInterface(const TezaServerConnection& connection, const bool& forceTrace, void* traceHandle,
                  const char* traceLabel);

    // Implemented by generated code, in this order.
    // The API family's number, the first argument of TezaNS_depot::getTezaTracker.
    virtual int getInterfaceId() const = 0;
    // The family's name; the runtime never calls it.
    virtual const char* getInterfaceName() const = 0;
    // The API's name on the wire, the name of its request element. The string must stay
    // valid at least until the invoke that asked for it returns.
    virtual const std::string& getApiName(int api) const = 0;

    // Closes a handle still held (into the cache when it was marked cachable).
    virtual ~TezaInterface();

    TezaServerConnection& getConnection() { return _connection; }

    // The four shapes of an API call: without records, with an input record, with an output
    // record, with both. Success, ApiFailed with the server's decoded reason and error number,
    // or the ConnectionFailed status of the open. The output record is filled only on
    // success. REQUIRES: the calling thread holds no database transaction (get_trans_label);
    // otherwise the process ends.
    TezaStatus invoke(int api);
    TezaStatus invoke(int api, const TezaFieldType& input);
    TezaStatus invoke(int api, TezaFieldType& output);
    TezaStatus invoke(int api, const TezaFieldType& input, TezaFieldType& output);

    // The steps of invoke.
    // Names the connection after the API and opens it. A failure is traced and counted on the
    // API's tracker under a tag of its own, and returned unchanged.
    TezaStatus openConnection(int api);
    // Sends `request`, or, when `apiName` is non-null, the API `apiName` without arguments.
    // The caller owns the result left in `response`. A remote descriptor sends nothing and
    // leaves `response` as it was. REQUIRES: the descriptor is open unless remote.
    void perform_invocation(rk_elem_t* request, rk_elem_t*& response, int api, const char* apiName);
    // Hands the open handle to the connection cache (cacheConnection) or closes it
    // (closeConnection).
    void cacheConnection();
    void closeConnection();

    // Exported for hosts; the runtime does not read it. "TezaInterface".
    static const char* _mt_handle;
    // Set by a host process: returns the label of the database transaction the calling thread
    // holds, or null when it holds none. Null (the default) means no thread ever holds one.
    static const char* (*get_trans_label)();

  private:
    // The trace name of a call: the caller's label when given, otherwise the API's name.
    const char* traceName(int api) const;
    // Steps 3 to 8 of invoke, shared by the four variants: `input` and `output` may be null.
    TezaStatus invokeWith(int api, const TezaFieldType* input, TezaFieldType* output);

    // The endpoint; holds the open handle between openConnection and cacheConnection or
    // closeConnection.
    TezaServerConnection _connection;
    // True forces full tracing (level 3) for this interface's calls; see TezaTracer.
    bool _forceTrace;
    void* _traceHandle;       // not owned
    const char* _traceLabel;  // not owned
};

#endif  // TEZA_INTERFACE_H_
