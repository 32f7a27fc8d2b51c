// The annotation group of the window's toolbar: the tool selector, the style
// popover's button, Sign, and the markup menu for selected text.
#pragma once

#include "AnnotationTool.h"

#include <QIcon>
#include <QPointer>
#include <QWidget>

#include <functional>

class AnnotationStylePopover;
class DocumentModel;
class PdfView;
class QButtonGroup;
class QMenu;
class QToolButton;
class ToolSettings;

class AnnotationToolbarItems : public QWidget {
    Q_OBJECT
public:
    static constexpr int toolSelectorWidth = 250;

    // `icon` gives the icon of an icon-theme name; `onSign` is called by Sign.
    AnnotationToolbarItems(DocumentModel *documentModel, ToolSettings *toolSettings, std::function<void()> onSign,
                           std::function<QIcon(const QString &)> icon, QWidget *parent = nullptr);

    // The page view of the window the items belong to: Markup marks the text selected there.
    void setPdfView(PdfView *view);

    // Whether the style popover is open; it opens below the style button.
    bool showStylePopover() const { return showStylePopover_; }
    void setShowStylePopover(bool show);

    // For tests and accessibility: the pieces as they stand.
    QWidget *toolSelector() const { return toolSelector_; }
    QToolButton *toolButton(AnnotationTool tool) const;
    QToolButton *styleButton() const { return styleButton_; }
    QToolButton *signButton() const { return signButton_; }
    QToolButton *markupButton() const { return markupButton_; }
    QMenu *markupMenu() const;
    // The style popover, made when it is first opened and kept (hidden) after.
    AnnotationStylePopover *stylePopover() const { return stylePopover_; }

signals:
    void showStylePopoverChanged();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QWidget *buildToolSelector(const std::function<QIcon(const QString &)> &icon);
    void showCurrentTool();
    void updateEnabling();
    void presentStylePopover();

    DocumentModel *documentModel_;
    QPointer<PdfView> pdfView_;
    ToolSettings *toolSettings_;
    QButtonGroup *tools_ = nullptr;
    QWidget *toolSelector_ = nullptr;
    QToolButton *styleButton_ = nullptr;
    QToolButton *signButton_ = nullptr;
    QToolButton *markupButton_ = nullptr;
    AnnotationStylePopover *stylePopover_ = nullptr;
    bool showStylePopover_ = false;
};
