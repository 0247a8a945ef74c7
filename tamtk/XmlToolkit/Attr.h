#pragma once

#include <libxml/tree.h>

#include <boost/lexical_cast.hpp>
#include <boost/shared_ptr.hpp>
#include <string>
#include <type_traits>

#include "Toolkit/Export.h"
#include "Toolkit/Utf8Array.h"

namespace Tamxml {

class Document;

namespace internal {

// Both raise Tamxml::ValueCastException.
[[noreturn]] TAMTK_API void throwEmptyValue();
[[noreturn]] TAMTK_API void throwFailedCast();

template <class T>
struct ValueCast {
    static T from(const std::string& text) {
        if (text.empty()) {
            throwEmptyValue();
        }
        // lexical_cast wraps "-1" round to the largest unsigned value; a
        // negative count or id is a configuration mistake, not a big number.
        if (std::is_unsigned<T>::value && !std::is_same<T, bool>::value && text[0] == '-') {
            throwFailedCast();
        }
        try {
            return boost::lexical_cast<T>(text);
        } catch (const boost::bad_lexical_cast&) {
            throwFailedCast();
        }
    }
};

template <>
struct ValueCast<std::string> {
    static std::string from(std::string text) {
        if (text.empty()) {
            throwEmptyValue();
        }
        return text;
    }
};

}  // namespace internal

// One attribute of an element; holding it keeps the document alive.
class TAMTK_API Attr {
public:
    Attr(boost::shared_ptr<const Document> document, xmlAttrPtr attr);

    // The attribute's text, entity references resolved.
    boost::shared_ptr<const Tamtk::Utf8Array> value() const;

    // The text converted to T: as it is for std::string, through
    // boost::lexical_cast otherwise. An empty text raises "Empty value", one
    // that does not convert "Could not perform the cast from the value to the
    // specific type" (both Tamxml::ValueCastException).
    template <class T>
    T value_cast() const {
        return internal::ValueCast<T>::from(content());
    }

    // The name as written, with its prefix if it has one.
    std::string name() const;

    xmlAttrPtr get() const { return attr_; }

private:
    std::string content() const;

    boost::shared_ptr<const Document> document_;
    xmlAttrPtr attr_;
};

}  // namespace Tamxml
