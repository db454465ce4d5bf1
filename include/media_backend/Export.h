#pragma once

// Exports a symbol from libmedia_backend.so; all others are hidden.
#define MEDIA_BACKEND_API __attribute__((visibility("default")))
