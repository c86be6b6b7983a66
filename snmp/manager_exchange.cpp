#include <algorithm>

#include "snmp/manager_operations.h"
#include "snmp/message.h"
#include "snmp/toolkit_log.h"
#include "snmp/udp_transport.h"

namespace kv::snmp {

namespace {

/// Results of opening a session, in the low byte of what it gives.
constexpr std::uint8_t openedOutOfMemory = 99;
constexpr std::uint8_t openedNot = 255;

/// The socket of one exchange.
class Session {
  public:
    explicit Session(TransportDomainInfo* info)
        : info_(info), status_(static_cast<std::uint8_t>(OpenSnmpSession(info))) {}
    ~Session() { CloseSnmpSession(info_); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    std::uint8_t status() const { return status_; }

  private:
    TransportDomainInfo* info_;
    std::uint8_t status_;
};

/// False, with the reason, when the session cannot be used. No socket of this system has one of these low bytes, and a
/// session that could not be opened has 0 and fails at sending.
bool IsOpen(const Session& session, std::uint8_t* status) {
    if (session.status() == openedOutOfMemory) {
        TKLOG(2, "Unable to allocate memory\n");
        *status = exchange_status::outOfMemory;
        return false;
    }
    if (session.status() == openedNot) {
        PrintToConsole(LogText("Unable to open snmpSession at %d\n", ownPort));
        *status = exchange_status::notOpened;
        return false;
    }
    return true;
}

bool SendPduAndWaitForTdInfoResp(TransportDomainInfo* info, SnmpPdu* request) {
    TKLOG(3, "\t Inside SendPduAndWaitForTdInfoResp() \n");
    if (SendSnmpPdu(info, request) != 1) {
        TKLOG(2, "Error while sending the packet to the master agent !!!\n");
        return false;
    }
    const std::int64_t seconds = std::max(request->timeoutSeconds, 0);
    if (WaitForTdInfoResp(info, seconds * 1'000'000) == 1) return true;
    Log1("\t SendPduAndWaitForTdInfoResp :: no answer from %s port %d within %d s \n", info->address->remoteHost.data(),
         info->address->remotePort, seconds);
    return false;
}

/// The answer that waits at the socket.
SnmpPduPtr ReceivePdu(TransportDomainInfo* info, std::uint8_t* status) {
    SnmpPduPtr response(AllocateAndInitSnmpPdu());
    if (!response) {
        *status = exchange_status::outOfMemory;
        return nullptr;
    }
    const std::uint8_t result = ReadAndParseSnmpMessage(info, response.get());
    if (response->errorStatus != 0) {
        *status = static_cast<std::uint8_t>(response->errorStatus);
    } else if (result == parse_result::dropped) {
        TKLOG(2, "Unable to decode the received snmp message\n");
        *status = exchange_status::undecodable;
    } else if (result == parse_result::outOfMemory) {
        TKLOG(1, "Unable to allocate memory\n");
        *status = exchange_status::outOfMemory;
        return nullptr;
    } else {
        *status = exchange_status::done;
        DisplaySnmpPduInfo(response.get());
    }
    return response;
}

}  // namespace

SnmpPduPtr SendAndReceiveSnmpPdu(SnmpPdu* request, const char* host, std::int32_t port, std::uint8_t* status) {
    TKLOG(3, "\t Inside SendAndReceiveSnmpPdu() \n");
    *status = exchange_status::noAnswer;
    const TransportDomainInfoPtr info(CreateTransportDomainInfo(0, static_cast<std::uint16_t>(port), host));
    if (!info) return nullptr;
    const Session session(info.get());
    if (!IsOpen(session, status)) return nullptr;
    if (!SendPduAndWaitForTdInfoResp(info.get(), request)) return nullptr;
    return ReceivePdu(info.get(), status);
}

}  // namespace kv::snmp
