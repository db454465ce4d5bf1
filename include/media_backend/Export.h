#pragma once

// Marks what leaves libmedia_backend.so; everything else is hidden.
#define MEDIA_BACKEND_API __attribute__((visibility("default")))
