#include "flasher/scatterprompts.h"

// Anchors the interface's type information in the library.
ScatterPrompts::~ScatterPrompts() = default;
