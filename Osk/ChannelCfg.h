#pragma once

#include <boost/shared_ptr.hpp>

#include "Osk/Export.h"
#include "Toolkit/Exceptions.h"

namespace Tamxml {
class Document;
}

namespace Osk {

// What the host hands to do_configure: the channel's configuration document.
class OSK_API ChannelCfg {
public:
    explicit ChannelCfg(boost::shared_ptr<const Tamxml::Document> doc) : document(doc) {}

    boost::shared_ptr<const Tamxml::Document> document;
};

// The host's exception families, one per tag; channels throw
// ExceptionT<ChannelCfg> for configuration faults.
template <class Tag>
class OSK_API ExceptionT : public Tamtk::Exception {
public:
    ExceptionT(const Tamtk::ExceptionString& message, const Tamtk::Location& where) noexcept
        : Tamtk::Exception(message, where) {}
    ExceptionT(const ExceptionT&) noexcept = default;
    ~ExceptionT() override {}
};

typedef ExceptionT<ChannelCfg> ConfigException;

}  // namespace Osk
