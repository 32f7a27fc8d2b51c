#include "AnnotationTool.h"

#include <QCoreApplication>

namespace annotationTool {
namespace {

struct Description {
    const char *raw;
    const char *title;
    const char *icon;
    const char *help;
};

const Description &describe(AnnotationTool tool)
{
    static const Description descriptions[] = {
        {"none", QT_TRANSLATE_NOOP("AnnotationTool", "Select"), "edit-select",
         QT_TRANSLATE_NOOP("AnnotationTool", "Select, move, resize, or delete anything you've placed")},
        {"editText", QT_TRANSLATE_NOOP("AnnotationTool", "Edit Text"), "edit-rename",
         QT_TRANSLATE_NOOP("AnnotationTool", "Click existing text to edit it in place (covers the original; it isn't removed "
                                             "from the file), or click empty space for a new text box")},
        {"freeText", QT_TRANSLATE_NOOP("AnnotationTool", "Add Text"), "insert-text",
         QT_TRANSLATE_NOOP("AnnotationTool", "Click to drop a new text box")},
        {"ink", QT_TRANSLATE_NOOP("AnnotationTool", "Draw"), "draw-freehand", QT_TRANSLATE_NOOP("AnnotationTool", "Draw freehand")},
        {"rectangle", QT_TRANSLATE_NOOP("AnnotationTool", "Rectangle"), "draw-rectangle",
         QT_TRANSLATE_NOOP("AnnotationTool", "Drag to draw a rectangle")},
        {"circle", QT_TRANSLATE_NOOP("AnnotationTool", "Circle"), "draw-ellipse",
         QT_TRANSLATE_NOOP("AnnotationTool", "Drag to draw an ellipse")},
        {"note", QT_TRANSLATE_NOOP("AnnotationTool", "Note"), "annotation-note",
         QT_TRANSLATE_NOOP("AnnotationTool", "Click to pin a note to the page")},
    };
    return descriptions[static_cast<int>(tool)];
}

} // namespace

QString rawValue(AnnotationTool tool) { return QString::fromLatin1(describe(tool).raw); }

std::optional<AnnotationTool> fromRawValue(const QString &raw)
{
    for (AnnotationTool tool : allCases)
        if (raw == QLatin1String(describe(tool).raw))
            return tool;
    return std::nullopt;
}

QString title(AnnotationTool tool) { return QCoreApplication::translate("AnnotationTool", describe(tool).title); }
QString iconName(AnnotationTool tool) { return QString::fromLatin1(describe(tool).icon); }
QString helpText(AnnotationTool tool) { return QCoreApplication::translate("AnnotationTool", describe(tool).help); }

} // namespace annotationTool
