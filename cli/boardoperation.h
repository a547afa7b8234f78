#pragma once

#include "flasher/flashplan.h"

#include <QVariantList>

class BoardContext;

// One job a board does once it is connected, has its loader running and is identified: a
// chain of worker commands, one at a time. The session asks for the next command, hands its
// result back, and disconnects when every operation is done or one failed.
class BoardOperation
{
public:
    enum class Step {
        Command, // *command holds the next worker command
        Done,    // the operation is complete
        Failed   // the operation cannot go on (it logged why)
    };

    virtual ~BoardOperation();

    // Called once, after identification; false fails the board (the reason was logged).
    virtual bool begin(BoardContext &board) = 0;
    virtual Step next(BoardContext &board, FlashPlan::Command *command) = 0;
    // The results of a command that finished successfully; false fails the board.
    virtual bool handle(BoardContext &board, int command, const QVariantList &results) = 0;
    // Whether the chip's loader stub must run first.
    virtual bool needsLoader() const { return true; }
};
