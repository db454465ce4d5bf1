#pragma once

// Marks what leaves libLumoraTools.so.
#define LUMORA_API __attribute__((visibility("default")))
