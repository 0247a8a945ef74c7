#pragma once

// Small value types for IP addresses. Text conversion goes through
// inet_pton/inet_ntop; bad text raises Tamnet::NetAddrInvalid.

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>

#include "Toolkit/Exceptions.h"
#include "Toolkit/Export.h"

namespace Tamnet {

// One IPv4 address, held in host byte order.
class TAMTK_API IPv4Addr {
public:
    IPv4Addr() noexcept : addr_(0) {}
    explicit IPv4Addr(std::uint32_t hostOrder) noexcept : addr_(hostOrder) {}
    // Dotted text; anything else raises "Bad IPv4 address string [[ text ]]".
    explicit IPv4Addr(const std::string& text);

    IPv4Addr& assign(std::uint32_t hostOrder) noexcept;
    IPv4Addr& assign(const std::string& text);

    std::uint32_t value() const noexcept { return addr_; }
    // Dotted text of the address.
    std::string str() const;

    // The IPv4 test: true when `text` is a complete dotted IPv4 address.
    static bool is_valid(const std::string& text) noexcept;

    friend bool operator==(IPv4Addr a, IPv4Addr b) noexcept { return a.addr_ == b.addr_; }
    friend bool operator!=(IPv4Addr a, IPv4Addr b) noexcept { return a.addr_ != b.addr_; }
    friend bool operator<(IPv4Addr a, IPv4Addr b) noexcept { return a.addr_ < b.addr_; }

private:
    std::uint32_t addr_;
};

// An IPv4 network: its address and its mask. Masks must be contiguous and
// the network may not have bits outside its mask, so that every network has
// exactly one written form. The all-zero network (any address) is "0/0".
class TAMTK_API IPv4Mask {
public:
    IPv4Mask() noexcept {}
    IPv4Mask(IPv4Addr network, const IPv4Addr& mask);

    IPv4Mask& assign(IPv4Addr network, const IPv4Addr& mask);
    // Network and mask as dotted text.
    IPv4Mask& set_netmask(const std::string& network, const std::string& mask);

    const IPv4Addr& network() const noexcept { return network_; }
    const IPv4Addr& mask() const noexcept { return mask_; }
    bool is_null() const noexcept { return network_.value() == 0 && mask_.value() == 0; }
    // True when `addr` lies inside the network.
    bool contains(IPv4Addr addr) const noexcept;

    // "network/mask" in dotted form, or "0/0" for the null network.
    std::string str() const;

    friend bool operator==(const IPv4Mask& a, const IPv4Mask& b) noexcept {
        return a.network_ == b.network_ && a.mask_ == b.mask_;
    }
    friend bool operator!=(const IPv4Mask& a, const IPv4Mask& b) noexcept { return !(a == b); }
    friend bool operator<(const IPv4Mask& a, const IPv4Mask& b) noexcept {
        return a.network_ < b.network_ || (a.network_ == b.network_ && a.mask_ < b.mask_);
    }

private:
    IPv4Addr network_;
    IPv4Addr mask_;
};

// An IPv4 or IPv6 address, or nothing. Empty addresses order first, then
// IPv4, then IPv6; within a kind by numeric value.
class TAMTK_API IPAddr {
public:
    enum kind_type { none = 0, v4 = AF_INET, v6 = AF_INET6 };

    IPAddr() noexcept;
    // Text that passes the IPv4 test is IPv4, anything else must be IPv6.
    explicit IPAddr(const std::string& text);
    IPAddr(const IPv4Addr& addr) noexcept;  // NOLINT: an IPv4 address is an IP address
    explicit IPAddr(std::uint32_t ipv4HostOrder) noexcept;
    explicit IPAddr(const in6_addr& addr) noexcept;

    IPAddr& assign(const std::string& text);

    kind_type kind() const noexcept { return kind_; }
    bool is_ipv4() const noexcept { return kind_ == v4; }
    bool is_ipv6() const noexcept { return kind_ == v6; }
    // The IPv4 form; raises NetAddrInvalid for anything that is not IPv4.
    IPv4Addr ipv4() const;
    // The IPv6 form; raises NetAddrInvalid for anything that is not IPv6.
    const in6_addr& ipv6() const;

    // Text of the address; "0:0" for the empty address.
    std::string str() const;

    explicit operator bool() const noexcept { return kind_ != none; }

    friend TAMTK_API bool operator==(const IPAddr& a, const IPAddr& b) noexcept;
    friend TAMTK_API bool operator<(const IPAddr& a, const IPAddr& b) noexcept;
    friend bool operator!=(const IPAddr& a, const IPAddr& b) noexcept { return !(a == b); }

private:
    kind_type kind_;
    std::uint32_t v4_;  // host order
    in6_addr v6_;
};

TAMTK_API std::ostream& operator<<(std::ostream& out, const IPv4Addr& addr);
TAMTK_API std::ostream& operator<<(std::ostream& out, const IPv4Mask& net);
TAMTK_API std::ostream& operator<<(std::ostream& out, const IPAddr& addr);

// One set of conversions for every address type, so that code generic over
// the kind of address (lists, access rules) needs no special cases.
//   string_to_addr / addr_to_string   text forms (the null value has one too)
//   native_to_addr / addr_to_native   the system's structures, network order
//   equal, null()
template <class T>
struct netaddr_traits;

template <>
struct TAMTK_API netaddr_traits<IPv4Addr> {
    typedef IPv4Addr addr_type;
    typedef in_addr native_type;
    static IPv4Addr string_to_addr(const std::string& text);
    static std::string addr_to_string(const IPv4Addr& addr);
    static bool equal(const IPv4Addr& a, const IPv4Addr& b) noexcept { return a == b; }
    static IPv4Addr native_to_addr(const in_addr& native) noexcept;
    static in_addr addr_to_native(const IPv4Addr& addr) noexcept;
    static IPv4Addr null() noexcept { return IPv4Addr(); }
};

template <>
struct TAMTK_API netaddr_traits<IPv4Mask> {
    typedef IPv4Mask addr_type;
    // Network address and mask.
    typedef std::pair<in_addr, in_addr> native_type;
    // "network/mask" in dotted form, or "0/0".
    static IPv4Mask string_to_addr(const std::string& text);
    static std::string addr_to_string(const IPv4Mask& net) { return net.str(); }
    static bool equal(const IPv4Mask& a, const IPv4Mask& b) noexcept { return a == b; }
    static IPv4Mask native_to_addr(const native_type& native);
    static native_type addr_to_native(const IPv4Mask& net) noexcept;
    static IPv4Mask null() noexcept { return IPv4Mask(); }
};

template <>
struct TAMTK_API netaddr_traits<IPAddr> {
    typedef IPAddr addr_type;
    // sockaddr_in or sockaddr_in6 by family; AF_UNSPEC for the null address.
    typedef sockaddr_storage native_type;
    // Accepts "0:0" for the null address.
    static IPAddr string_to_addr(const std::string& text);
    static std::string addr_to_string(const IPAddr& addr) { return addr.str(); }
    static bool equal(const IPAddr& a, const IPAddr& b) noexcept { return a == b; }
    static IPAddr native_to_addr(const sockaddr_storage& native);
    static sockaddr_storage addr_to_native(const IPAddr& addr) noexcept;
    static IPAddr null() noexcept { return IPAddr(); }
};

}  // namespace Tamnet
