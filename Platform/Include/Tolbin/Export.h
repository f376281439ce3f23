#pragma once

//! Marks what the shared library shows its host; everything else is hidden.
#define TOLBIN_EXPORT __attribute__((visibility("default")))
