#pragma once

// Exports a symbol from libLumoraTools.so.
#define LUMORA_API __attribute__((visibility("default")))
