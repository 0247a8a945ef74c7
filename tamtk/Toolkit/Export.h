#pragma once

// The toolkit is built with hidden visibility; only what carries TAMTK_API
// is part of its binary interface.
#define TAMTK_API __attribute__((visibility("default")))
