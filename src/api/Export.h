// Marks a function as part of the library's public C interface.
#pragma once
#define NKR_EXPORT extern "C" __attribute__((visibility("default")))
