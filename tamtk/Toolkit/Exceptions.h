#pragma once

// Every exception family of the system. A family is ExceptionT over a tag;
// a handler catches one family by its class or all of them as Tamtk::Exception.
// Tags are only names, so most are left incomplete.

#include "Toolkit/Exception.h"

namespace Tamtk {

namespace exceptions {
struct bad_cast_tk;
struct bad_value;
struct eof;
struct find_failed;
struct invalid_address;
struct not_found;
struct not_initialised;
struct resource;
struct file;
// Null pointer where an object is required (`nullptr` itself is a keyword).
struct null_pointer;
// Failed internal consistency check (TAMTK_ASSERT).
struct assertion;
}  // namespace exceptions

struct bad_scopelock_cast;
// Tag of malformed UTF-8 (the byte type of Utf8Array is plain char).
struct Utf8Byte;

namespace internal {
namespace locks {
struct exception_tag;
}
namespace loader {
struct loader_exception;
}
}  // namespace internal

namespace singleton {
struct exception_tag;
}

typedef ExceptionT<exceptions::file> FileException;
typedef ExceptionT<exceptions::null_pointer> NullPointerException;
typedef ExceptionT<exceptions::assertion> AssertionException;
typedef ExceptionT<exceptions::bad_value> BadValueException;
typedef ExceptionT<exceptions::not_found> NotFoundException;
typedef ExceptionT<exceptions::resource> ResourceException;
typedef ExceptionT<Utf8Byte> Utf8Exception;
typedef ExceptionT<internal::loader::loader_exception> LoaderException;
typedef ExceptionT<singleton::exception_tag> SingletonException;
typedef ExceptionT<internal::locks::exception_tag> LockFamilyException;

}  // namespace Tamtk

namespace Tamnet {
struct email_addr_tag;
namespace exceptions {
struct netaddr_invalid;
}
// The encoding letter of an RFC 2047 encoded word; also the tag of its family.
enum Rfc2047Encoding { B = 0x42, Q = 0x51 };

typedef Tamtk::ExceptionT<email_addr_tag> EmailAddrException;
typedef Tamtk::ExceptionT<exceptions::netaddr_invalid> NetAddrInvalid;
typedef Tamtk::ExceptionT<Rfc2047Encoding> Rfc2047Exception;
}  // namespace Tamnet

namespace Tamxml {
namespace exceptions {
struct xml_tag;
struct value_cast;
}  // namespace exceptions
typedef Tamtk::ExceptionT<exceptions::xml_tag> XmlException;
typedef Tamtk::ExceptionT<exceptions::value_cast, XmlException> ValueCastException;
}  // namespace Tamxml

namespace Tamlog {
namespace exceptions {
struct log_exception;
struct target_unknown;
struct sendlog_failure;
}  // namespace exceptions
typedef Tamtk::ExceptionT<exceptions::log_exception> LogException;
template <class Tag>
using LogExceptionT = Tamtk::ExceptionT<Tag, LogException>;
typedef LogExceptionT<exceptions::target_unknown> TargetUnknown;
typedef LogExceptionT<exceptions::sendlog_failure> SendlogFailure;
}  // namespace Tamlog

namespace Osk {
struct exception_tag;
typedef Tamlog::LogExceptionT<exception_tag> ChannelException;
}  // namespace Osk
