#include "NetToolkit/IP.h"

#include <arpa/inet.h>

#include <cstring>
#include <ostream>

namespace Tamnet {

namespace {

const char* const _source = "NetToolkit/IP";

bool _parseIPv4(const std::string& text, std::uint32_t& hostOrder) noexcept {
    in_addr native;
    if (inet_pton(AF_INET, text.c_str(), &native) != 1) {
        return false;
    }
    hostOrder = ntohl(native.s_addr);
    return true;
}

std::string _formatIPv4(std::uint32_t hostOrder) {
    in_addr native;
    native.s_addr = htonl(hostOrder);
    char buffer[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &native, buffer, sizeof buffer);
    return buffer;
}

// A contiguous mask is ones followed by zeros: its complement plus one is a
// power of two (or zero, for the all-ones mask).
bool _contiguous(std::uint32_t mask) noexcept {
    return ((~mask) & (~mask + 1)) == 0;
}

}  // namespace

// ---- IPv4Addr ------------------------------------------------------------

IPv4Addr::IPv4Addr(const std::string& text) : addr_(0) {
    assign(text);
}

IPv4Addr& IPv4Addr::assign(std::uint32_t hostOrder) noexcept {
    addr_ = hostOrder;
    return *this;
}

IPv4Addr& IPv4Addr::assign(const std::string& text) {
    if (!_parseIPv4(text, addr_)) {
        TAMTK_THROW(NetAddrInvalid, _source, "Bad IPv4 address string [[ " << text << " ]]");
    }
    return *this;
}

std::string IPv4Addr::str() const {
    return _formatIPv4(addr_);
}

bool IPv4Addr::is_valid(const std::string& text) noexcept {
    std::uint32_t ignored;
    return _parseIPv4(text, ignored);
}

// ---- IPv4Mask ------------------------------------------------------------

IPv4Mask::IPv4Mask(IPv4Addr network, const IPv4Addr& mask) {
    assign(network, mask);
}

IPv4Mask& IPv4Mask::assign(IPv4Addr network, const IPv4Addr& mask) {
    if (!_contiguous(mask.value())) {
        TAMTK_THROW(NetAddrInvalid, _source,
                    "Bad IPv4 netmask, its bits are not contiguous [[ "
                        << network.str() << " (network) " << mask.str() << " (mask) ]]");
    }
    if ((network.value() & ~mask.value()) != 0) {
        TAMTK_THROW(NetAddrInvalid, _source,
                    "Bad IPv4 network, it has bits outside its mask [[ "
                        << network.str() << " (network) " << mask.str() << " (mask) ]]");
    }
    network_ = network;
    mask_ = mask;
    return *this;
}

IPv4Mask& IPv4Mask::set_netmask(const std::string& network, const std::string& mask) {
    std::uint32_t net = 0;
    std::uint32_t bits = 0;
    if (!_parseIPv4(network, net) || !_parseIPv4(mask, bits)) {
        TAMTK_THROW(
            NetAddrInvalid, _source,
            "Bad IPv4 network string [[ " << network << " (network) " << mask << " (mask) ]]");
    }
    return assign(IPv4Addr(net), IPv4Addr(bits));
}

bool IPv4Mask::contains(IPv4Addr addr) const noexcept {
    return (addr.value() & mask_.value()) == network_.value();
}

std::string IPv4Mask::str() const {
    if (is_null()) {
        return "0/0";
    }
    return network_.str() + "/" + mask_.str();
}

// ---- IPAddr --------------------------------------------------------------

IPAddr::IPAddr() noexcept : kind_(none), v4_(0), v6_() {}

IPAddr::IPAddr(const std::string& text) : IPAddr() {
    assign(text);
}

IPAddr::IPAddr(const IPv4Addr& addr) noexcept : kind_(v4), v4_(addr.value()), v6_() {}

IPAddr::IPAddr(std::uint32_t ipv4HostOrder) noexcept : kind_(v4), v4_(ipv4HostOrder), v6_() {}

IPAddr::IPAddr(const in6_addr& addr) noexcept : kind_(v6), v4_(0), v6_(addr) {}

IPAddr& IPAddr::assign(const std::string& text) {
    std::uint32_t v4value;
    if (_parseIPv4(text, v4value)) {
        *this = IPAddr(v4value);
        return *this;
    }
    in6_addr v6value;
    if (inet_pton(AF_INET6, text.c_str(), &v6value) != 1) {
        TAMTK_THROW(NetAddrInvalid, _source, "Bad IP address string [[ " << text << " ]]");
    }
    *this = IPAddr(v6value);
    return *this;
}

IPv4Addr IPAddr::ipv4() const {
    if (kind_ != v4) {
        TAMTK_THROW(NetAddrInvalid, _source, "Not an IPv4 address [[ " << str() << " ]]");
    }
    return IPv4Addr(v4_);
}

const in6_addr& IPAddr::ipv6() const {
    if (kind_ != v6) {
        TAMTK_THROW(NetAddrInvalid, _source, "Not an IPv6 address [[ " << str() << " ]]");
    }
    return v6_;
}

std::string IPAddr::str() const {
    switch (kind_) {
        case v4:
            return _formatIPv4(v4_);
        case v6: {
            char buffer[INET6_ADDRSTRLEN];
            inet_ntop(AF_INET6, &v6_, buffer, sizeof buffer);
            return buffer;
        }
        case none:
            break;
    }
    return "0:0";
}

bool operator==(const IPAddr& a, const IPAddr& b) noexcept {
    if (a.kind_ != b.kind_) {
        return false;
    }
    switch (a.kind_) {
        case IPAddr::v4:
            return a.v4_ == b.v4_;
        case IPAddr::v6:
            return std::memcmp(&a.v6_, &b.v6_, sizeof a.v6_) == 0;
        case IPAddr::none:
            break;
    }
    return true;
}

bool operator<(const IPAddr& a, const IPAddr& b) noexcept {
    // Rank the kinds explicitly: the family numbers do not order as wanted.
    auto rank = [](IPAddr::kind_type k) { return k == IPAddr::none ? 0 : k == IPAddr::v4 ? 1 : 2; };
    if (a.kind_ != b.kind_) {
        return rank(a.kind_) < rank(b.kind_);
    }
    switch (a.kind_) {
        case IPAddr::v4:
            return a.v4_ < b.v4_;
        case IPAddr::v6:
            // in6_addr is in network order, so byte order is numeric order.
            return std::memcmp(&a.v6_, &b.v6_, sizeof a.v6_) < 0;
        case IPAddr::none:
            break;
    }
    return false;
}

std::ostream& operator<<(std::ostream& out, const IPv4Addr& addr) {
    return out << addr.str();
}
std::ostream& operator<<(std::ostream& out, const IPv4Mask& net) {
    return out << net.str();
}
std::ostream& operator<<(std::ostream& out, const IPAddr& addr) {
    return out << addr.str();
}

// ---- netaddr_traits ------------------------------------------------------

IPv4Addr netaddr_traits<IPv4Addr>::string_to_addr(const std::string& text) {
    return IPv4Addr(text);
}

std::string netaddr_traits<IPv4Addr>::addr_to_string(const IPv4Addr& addr) {
    return addr.str();
}

IPv4Addr netaddr_traits<IPv4Addr>::native_to_addr(const in_addr& native) noexcept {
    return IPv4Addr(ntohl(native.s_addr));
}

in_addr netaddr_traits<IPv4Addr>::addr_to_native(const IPv4Addr& addr) noexcept {
    in_addr native;
    native.s_addr = htonl(addr.value());
    return native;
}

IPv4Mask netaddr_traits<IPv4Mask>::string_to_addr(const std::string& text) {
    if (text == "0/0") {
        return IPv4Mask();
    }
    const std::string::size_type slash = text.find('/');
    if (slash == std::string::npos) {
        TAMTK_THROW(NetAddrInvalid, _source, "Bad IPv4 network string [[ " << text << " ]]");
    }
    IPv4Mask net;
    net.set_netmask(text.substr(0, slash), text.substr(slash + 1));
    return net;
}

IPv4Mask netaddr_traits<IPv4Mask>::native_to_addr(const native_type& native) {
    return IPv4Mask(netaddr_traits<IPv4Addr>::native_to_addr(native.first),
                    netaddr_traits<IPv4Addr>::native_to_addr(native.second));
}

netaddr_traits<IPv4Mask>::native_type netaddr_traits<IPv4Mask>::addr_to_native(
    const IPv4Mask& net) noexcept {
    return native_type(netaddr_traits<IPv4Addr>::addr_to_native(net.network()),
                       netaddr_traits<IPv4Addr>::addr_to_native(net.mask()));
}

IPAddr netaddr_traits<IPAddr>::string_to_addr(const std::string& text) {
    if (text == "0:0") {
        return IPAddr();
    }
    return IPAddr(text);
}

IPAddr netaddr_traits<IPAddr>::native_to_addr(const sockaddr_storage& native) {
    switch (native.ss_family) {
        case AF_INET:
            return IPAddr(static_cast<std::uint32_t>(
                ntohl(reinterpret_cast<const sockaddr_in&>(native).sin_addr.s_addr)));
        case AF_INET6:
            return IPAddr(reinterpret_cast<const sockaddr_in6&>(native).sin6_addr);
        case AF_UNSPEC:
            return IPAddr();
        default:
            break;
    }
    TAMTK_THROW(NetAddrInvalid, _source,
                "Unsupported address family [[ " << native.ss_family << " ]]");
}

sockaddr_storage netaddr_traits<IPAddr>::addr_to_native(const IPAddr& addr) noexcept {
    sockaddr_storage native;
    std::memset(&native, 0, sizeof native);
    if (addr.is_ipv4()) {
        sockaddr_in& in = reinterpret_cast<sockaddr_in&>(native);
        in.sin_family = AF_INET;
        in.sin_addr = netaddr_traits<IPv4Addr>::addr_to_native(addr.ipv4());
    } else if (addr.is_ipv6()) {
        sockaddr_in6& in6 = reinterpret_cast<sockaddr_in6&>(native);
        in6.sin6_family = AF_INET6;
        in6.sin6_addr = addr.ipv6();
    } else {
        native.ss_family = AF_UNSPEC;
    }
    return native;
}

}  // namespace Tamnet
