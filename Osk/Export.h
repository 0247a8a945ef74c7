#pragma once

#define OSK_API __attribute__((visibility("default")))
