#include "tools/host_diagnose.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace plc::host {
namespace {

constexpr uint16_t kControllerPort = 44818;
constexpr int kProbeWaitMs = 1000;
// A bring-up or request that took this long waited out the driver's 10 s.
constexpr double kReplyWaitSeconds = 9.5;

bool has(const std::string &log, std::string_view what) {
    return log.find(what) != std::string::npos;
}

// The interfaces the driver takes the panel's address from.
bool panel_has_address() {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) return true; // cannot tell: say nothing about it
    bool found = false;
    for (const ifaddrs *a = list; a != nullptr; a = a->ifa_next) {
        if (a->ifa_addr != nullptr && a->ifa_addr->sa_family == AF_INET &&
            (std::strcmp(a->ifa_name, "eth0") == 0 || std::strcmp(a->ifa_name, "br0") == 0))
            found = true;
    }
    freeifaddrs(list);
    return found;
}

// A TCP connect to the controller port, waited for a little longer than the
// driver's 30 ms: 0 when it connected, else the errno (ETIMEDOUT for silence).
int probe_port(uint32_t controller) {
    const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (sock < 0) return errno;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(kControllerPort);
    to.sin_addr.s_addr = htonl(controller);
    int result = 0;
    if (::connect(sock, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0) {
        result = errno;
        if (result == EINPROGRESS) {
            pollfd p{sock, POLLOUT, 0};
            socklen_t len = sizeof result;
            if (::poll(&p, 1, kProbeWaitMs) <= 0)
                result = ETIMEDOUT;
            else if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &result, &len) != 0)
                result = errno;
        }
    }
    ::close(sock);
    return result;
}

std::string why_no_session(uint32_t controller) {
    const std::string where = " on port 44818 at " + address_text(controller);
    switch (const int e = probe_port(controller)) {
    case 0:
        return "the controller" + where + " answered only after the driver's 30 ms connect wait";
    case ECONNREFUSED: return "connection refused: nothing listens" + where;
    case ETIMEDOUT: return "no answer" + where + " (a TCP connection was not answered within 1 s)";
    default:
        return "cannot reach port 44818 at " + address_text(controller) + ": " + std::strerror(e);
    }
}

// The driver's "[PLC] ..." line that holds `what`, without prefix and line end.
std::string driver_line(const std::string &log, std::string_view what) {
    const size_t at = log.find(what);
    const size_t start = log.rfind("[PLC] ", at);
    size_t end = log.find_first_of("\r\n", at);
    if (start == std::string::npos) return "";
    if (end == std::string::npos) end = log.size();
    return log.substr(start + 6, end - start - 6);
}

bool bringup_failed(const std::string &log) {
    return has(log, "get IP err") || has(log, "OpenSession err") ||
           has(log, "connection error at line") || has(log, "reply NULL") ||
           has(log, "Command != EIP_REGISTERSESSION");
}

} // namespace

std::string address_text(uint32_t address) {
    in_addr a{};
    a.s_addr = htonl(address);
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &a, text, sizeof text);
    return text;
}

std::string explain_bringup(int status, const std::string &log, uint32_t controller,
                            double seconds) {
    if (has(log, "get IP err") || !panel_has_address())
        return "the panel has no IPv4 address on eth0 or br0 (the driver takes its own "
               "address from them)";
    if (has(log, "OpenSession err")) return why_no_session(controller);
    if (status == -1 || has(log, "reply NULL")) {
        if (has(log, "reply NULL") || seconds >= kReplyWaitSeconds)
            return "no reply to the session registration within 10 s";
        if (has(log, "Command != EIP_REGISTERSESSION"))
            return "the controller answered the session registration with another message";
        return "the controller refused the session registration";
    }
    if (has(log, "connection error at line")) {
        if (seconds >= kReplyWaitSeconds)
            return "no reply to the connection request (Forward_Open) within 10 s";
        return "the controller refused the connection (Forward_Open); the driver does not "
               "report the controller's reason";
    }
    return "no connection (driver status " + std::to_string(status) + ")";
}

std::string explain_status(int status, const std::string &log, bool write, uint32_t controller,
                           double seconds) {
    if (bringup_failed(log))
        return "no connection to the controller: " + explain_bringup(3, log, controller, seconds);
    if (status == 3) {
        if (has(log, "is not known to the controller"))
            return driver_line(log, "is not known to the controller");
        if (has(log, "is not exist in this tag list"))
            return "the driver's tag list has no such tag id: " +
                   driver_line(log, "is not exist in this tag list");
        if (has(log, "tag list") || has(log, "build tag table failed"))
            return "the driver refused the tag list: " + driver_line(log, "tag list");
        return "the driver refused the request before sending it: the element index or count "
               "lies outside the variable as the driver's tag list declares it";
    }
    if (has(log, "CIP_TransRecv err"))
        return "the controller did not answer (the connection was lost, or no reply came "
               "within 10 s)";
    if (write)
        return "the controller refused the write, or its reply was not the expected one: the "
               "value was not written";
    return "the controller's reply was not the expected one";
}

} // namespace plc::host
