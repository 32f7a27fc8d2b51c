// The undo and redo memory of the open document: each undoable change is a
// pair of actions, one reverting it and one applying it again. It also knows
// which point of the history is the one last saved, so the document counts as
// changed exactly when it is somewhere else.
#pragma once

#include <QtGlobal>

#include <functional>
#include <vector>

class EditHistory {
public:
    struct Edit {
        std::function<void()> undo;
        std::function<void()> redo;
        // Set when recorded: what tells one point of the history from another.
        quint64 id = 0;
    };

    // Undoes the most recent change, if any, and makes it redoable.
    void performUndo();
    // Redoes the most recently undone change, if any.
    void performRedo();
    // A new change: it can be undone, and nothing undone before can be redone.
    void record(Edit edit);
    // Forgets every change; the point reached is the saved one.
    void clear();

    // The document as it is now is the one on disk.
    void markSaved() { savedAt_ = position(); }
    // True while undo and redo have led back to the point last marked saved.
    bool isAtSavePoint() const { return position() == savedAt_; }

    const std::vector<Edit> &undoStack() const { return undoStack_; }
    const std::vector<Edit> &redoStack() const { return redoStack_; }

private:
    quint64 position() const { return undoStack_.empty() ? 0 : undoStack_.back().id; }

    std::vector<Edit> undoStack_;
    std::vector<Edit> redoStack_;
    quint64 nextId_ = 1;
    quint64 savedAt_ = 0;
};
