#pragma once

#include <exception>
#include <iosfwd>
#include <sstream>

#include "Toolkit/ExceptionString.h"
#include "Toolkit/Location.h"

namespace Tamtk {

// Root of every exception the toolkit and the channel throw. It deliberately
// does not derive from std::exception: handlers name the families they want.
class TAMTK_API Exception {
public:
    Exception(const ExceptionString& message, const Location& where) noexcept;
    Exception(const Exception& other) noexcept;
    Exception& operator=(const Exception& other) noexcept;
    virtual ~Exception();

    // The message exactly as given; never null.
    virtual const char* what() const noexcept;

    const ExceptionString& message() const noexcept { return message_; }
    // The message with the lower-level cause appended, when one was recorded.
    const ExceptionString& composed() const noexcept { return composed_; }
    const Location& location() const noexcept { return location_; }

protected:
    // Record a lower-level failure that this exception wraps.
    void ctorhelper(const Exception& lower) noexcept;
    void ctorhelper(const std::exception& lower) noexcept;

private:
    void compose(const char* cause) noexcept;

    ExceptionString message_;
    ExceptionString composed_;
    Location location_;
};

// "message [location]", plus the recorded cause.
TAMTK_API std::ostream& operator<<(std::ostream& out, const Exception& e);

// A family of exceptions: Tag names it, Base is what a handler of the wider
// family catches. Families nest by using another ExceptionT as Base.
template <class Tag, class Base = Exception>
class TAMTK_API ExceptionT : public Base {
public:
    typedef Tag tag_type;
    typedef Base base_type;

    ExceptionT(const ExceptionString& message, const Location& where) noexcept
        : Base(message, where) {}
    ExceptionT(const ExceptionT&) noexcept = default;
    ExceptionT& operator=(const ExceptionT&) noexcept = default;
    ~ExceptionT() override {}
};

}  // namespace Tamtk

// Raise `Family` at an explicit location with a message built by streaming:
//   TAMTK_THROW_AT(Family, TAMTK_HERE("ComponentLoader"), "Opening of module " << name);
#define TAMTK_THROW_AT(Family, where, stream_expr)                         \
    do {                                                                   \
        std::ostringstream tamtk_msg_;                                     \
        tamtk_msg_ << stream_expr;                                         \
        throw Family(::Tamtk::ExceptionString(tamtk_msg_.str()), (where)); \
    } while (0)

// Raise `Family` here, naming the source.
#define TAMTK_THROW(Family, source, stream_expr) \
    TAMTK_THROW_AT(Family, TAMTK_HERE(source), stream_expr)

// Internal consistency check: raises the assertion family with the text of
// the failed condition.
#define TAMTK_ASSERT(cond, source)                                             \
    do {                                                                       \
        if (!(cond)) {                                                         \
            throw ::Tamtk::AssertionException(::Tamtk::ExceptionString(#cond), \
                                              TAMTK_HERE(source));             \
        }                                                                      \
    } while (0)
