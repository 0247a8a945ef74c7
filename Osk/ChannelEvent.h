#pragma once

#include <boost/shared_ptr.hpp>

#include "Osk/Export.h"

namespace Tamxml {
class Document;
}

namespace Osk {

// One event from the host: a numeric id and its XML document.
class OSK_API ChannelEvent {
public:
    ChannelEvent(unsigned long id, boost::shared_ptr<const Tamxml::Document> doc)
        : id_(id), document_(doc) {}

    unsigned long id() const { return id_; }
    const boost::shared_ptr<const Tamxml::Document>& document() const { return document_; }

private:
    unsigned long id_;
    boost::shared_ptr<const Tamxml::Document> document_;
};

}  // namespace Osk
