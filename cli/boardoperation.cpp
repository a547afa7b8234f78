#include "cli/boardoperation.h"

// Anchors the interface's type information in one object file.
BoardOperation::~BoardOperation() = default;
