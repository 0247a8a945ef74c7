#pragma once

// The header block of a mail (RFC 5322): the lines up to the first empty
// line, each field a name, a colon and a value that may be folded onto
// lines that begin with a blank. Lines end in LF or CR LF.

#include <string>
#include <string_view>
#include <vector>

#include "Toolkit/Export.h"

namespace Tamnet {

struct HeaderField {
    std::string name;   // as written, without blanks before the colon
    std::string value;  // unfolded (line ends dropped, blanks kept), without leading blanks
    std::string text;   // the field as written, folding kept, without its last line end
};

class TAMTK_API HeaderBlock {
public:
    // Reads the fields at the start of `message`. Without an empty line the
    // whole message is the block. Lines that are not a field (no colon, or
    // a name that is not printable ASCII) are passed over, with their
    // continuation lines.
    explicit HeaderBlock(std::string_view message);

    const std::vector<HeaderField>& fields() const noexcept { return fields_; }
    // The first field called `name`, in any case; null when there is none.
    const HeaderField* find(std::string_view name) const noexcept;
    // How the first line ends: "\r\n" or "\n".
    const char* lineEnd() const noexcept { return lineEnd_; }

private:
    std::vector<HeaderField> fields_;
    const char* lineEnd_ = "\n";
};

}  // namespace Tamnet
