#pragma once

#include <memory>
#include <vector>

#include "Toolkit/Exceptions.h"

namespace Tamtk {

// An exception of the family `Tag` that collects further messages beside its
// own, e.g. the lower-level texts behind one failure. what() stays the
// message it was made with. Copies share the collection, so copying stays
// cheap and cannot fail.
template <class Tag, class Message>
class TAMTK_API MultiExceptionT : public ExceptionT<Tag, Exception> {
public:
    typedef std::vector<Message> messages_type;

    MultiExceptionT(const ExceptionString& message, const Location& where) noexcept
        : ExceptionT<Tag, Exception>(message, where) {}
    MultiExceptionT(const MultiExceptionT&) noexcept = default;
    MultiExceptionT& operator=(const MultiExceptionT&) noexcept = default;
    ~MultiExceptionT() override {}

    // Adds a message; copies made before keep what they had.
    void add(const Message& message) {
        auto more = std::make_shared<messages_type>(messages());
        more->push_back(message);
        messages_ = std::move(more);
    }
    // The added messages, in order.
    const messages_type& messages() const noexcept {
        static const messages_type none;
        return messages_ ? *messages_ : none;
    }

private:
    std::shared_ptr<const messages_type> messages_;
};

}  // namespace Tamtk
