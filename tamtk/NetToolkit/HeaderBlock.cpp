#include "NetToolkit/HeaderBlock.h"

namespace Tamnet {

namespace {

bool _isBlank(char c) {
    return c == ' ' || c == '\t';
}

char _lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The field name of `line`, or empty when the line is no field.
std::string_view _fieldName(std::string_view line) {
    std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return {};
    }
    // Blanks before the colon are the obsolete syntax still met in mail.
    std::size_t end = colon;
    while (end > 0 && _isBlank(line[end - 1])) {
        --end;
    }
    for (std::size_t i = 0; i < end; ++i) {
        const unsigned char c = static_cast<unsigned char>(line[i]);
        if (c <= ' ' || c >= 0x7F) {
            return {};
        }
    }
    return line.substr(0, end);
}

}  // namespace

HeaderBlock::HeaderBlock(std::string_view message) {
    bool open = false;  // whether continuation lines belong to the last field
    std::size_t fieldStart = 0;
    std::size_t pos = 0;
    while (pos < message.size()) {
        const std::size_t eol = message.find('\n', pos);
        const std::size_t next = eol == std::string_view::npos ? message.size() : eol + 1;
        std::size_t end = eol == std::string_view::npos ? message.size() : eol;
        if (end > pos && message[end - 1] == '\r') {
            --end;
        }
        if (pos == 0) {
            lineEnd_ = eol != std::string_view::npos && end < eol ? "\r\n" : "\n";
        }
        const std::string_view line = message.substr(pos, end - pos);
        pos = next;
        if (line.empty()) {
            break;
        }
        if (_isBlank(line[0])) {
            if (open) {
                fields_.back().value += line;
                fields_.back().text.assign(message.data() + fieldStart, end - fieldStart);
            }
            continue;
        }
        const std::string_view name = _fieldName(line);
        open = !name.empty();
        if (open) {
            fieldStart = end - line.size();
            fields_.push_back({std::string(name), std::string(line.substr(line.find(':') + 1)),
                               std::string(line)});
        }
    }
    for (HeaderField& field : fields_) {
        std::size_t blanks = 0;
        while (blanks < field.value.size() && _isBlank(field.value[blanks])) {
            ++blanks;
        }
        field.value.erase(0, blanks);
    }
}

const HeaderField* HeaderBlock::find(std::string_view name) const noexcept {
    for (const HeaderField& field : fields_) {
        if (field.name.size() != name.size()) {
            continue;
        }
        std::size_t i = 0;
        while (i < name.size() && _lower(field.name[i]) == _lower(name[i])) {
            ++i;
        }
        if (i == name.size()) {
            return &field;
        }
    }
    return nullptr;
}

}  // namespace Tamnet
