// Icons by icon-theme name, with a drawn stand-in for desktops whose theme
// lacks one, so that every button shows an icon.
#pragma once

#include <QIcon>
#include <QString>

namespace Icons {

QIcon get(const QString &themeName);

} // namespace Icons
