// The editing modes of a window; exactly one is current at a time.
#pragma once

#include <QString>

#include <array>
#include <optional>

enum class AnnotationTool { none, editText, freeText, ink, rectangle, circle, note };

namespace annotationTool {

// Every tool, in the order of the toolbar.
constexpr std::array<AnnotationTool, 7> allCases{AnnotationTool::none,      AnnotationTool::editText,  AnnotationTool::freeText,
                                                 AnnotationTool::ink,       AnnotationTool::rectangle, AnnotationTool::circle,
                                                 AnnotationTool::note};

// The stored name of a tool ("none", "editText", ...), which is also its identity.
QString rawValue(AnnotationTool tool);
// The tool with exactly this raw value, or none.
std::optional<AnnotationTool> fromRawValue(const QString &raw);

QString title(AnnotationTool tool);
// An icon-theme name, for QIcon::fromTheme.
QString iconName(AnnotationTool tool);
QString helpText(AnnotationTool tool);

} // namespace annotationTool
