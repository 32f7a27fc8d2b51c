#include "EditHistory.h"

void EditHistory::performUndo()
{
    if (undoStack_.empty())
        return;
    Edit edit = std::move(undoStack_.back());
    undoStack_.pop_back();
    edit.undo();
    redoStack_.push_back(std::move(edit));
}

void EditHistory::performRedo()
{
    if (redoStack_.empty())
        return;
    Edit edit = std::move(redoStack_.back());
    redoStack_.pop_back();
    edit.redo();
    undoStack_.push_back(std::move(edit));
}

void EditHistory::record(Edit edit)
{
    edit.id = nextId_++;
    undoStack_.push_back(std::move(edit));
    redoStack_.clear();
}

void EditHistory::clear()
{
    undoStack_.clear();
    redoStack_.clear();
    savedAt_ = 0;
}
