// The undo and redo memory of the open document: each undoable change is a
// pair of actions, one reverting it and one applying it again.
#pragma once

#include <functional>
#include <vector>

class EditHistory {
public:
    struct Edit {
        std::function<void()> undo;
        std::function<void()> redo;
    };

    // Undoes the most recent change, if any, and makes it redoable.
    void performUndo();
    // Redoes the most recently undone change, if any.
    void performRedo();
    // A new change: it can be undone, and nothing undone before can be redone.
    void record(Edit edit);
    void clear();

    const std::vector<Edit> &undoStack() const { return undoStack_; }
    const std::vector<Edit> &redoStack() const { return redoStack_; }

private:
    std::vector<Edit> undoStack_;
    std::vector<Edit> redoStack_;
};
