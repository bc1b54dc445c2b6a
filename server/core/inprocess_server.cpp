#include "inprocess_server.h"

namespace tezad {

InProcessServer::InProcessServer(const std::string& name, ServiceCore* core)
    : _name(name), _core(core) {
    _registered = rk_inprocess_register(_name.c_str(), &InProcessServer::Answer, this) != 0;
}

InProcessServer::~InProcessServer() {
    if (_registered) {
        rk_inprocess_unregister(_name.c_str());
    }
}

rk_elem_t* InProcessServer::Answer(void* context, const rk_inprocess_call_t* call,
                                   rk_elem_t* request) {
    auto* self = static_cast<InProcessServer*>(context);
    try {
        CallInfo info;
        info.hasCredentials = call->login != nullptr;
        info.login = call->login != nullptr ? call->login : "";
        info.password = call->password != nullptr ? call->password : "";
        info.hasToken = call->token != nullptr;
        info.token = call->token != nullptr ? call->token : "";
        info.hasVersion = true;
        info.major = call->major;
        info.minor = call->minor;
        info.hasServerType = true;
        info.serverType = call->server_type;
        Reply reply = self->_core->Handle(info, request);
        switch (reply.kind) {
            case Reply::Kind::Result:
                return reply.result.release();
            case Reply::Kind::Raw:
                return rk_elem_parse(reply.body.data(), reply.body.size(), nullptr, 0);
            default:
                return nullptr;
        }
    } catch (...) {
        return nullptr;
    }
}

}  // namespace tezad
