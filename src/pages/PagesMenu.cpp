#include "PagesMenu.h"

#include "DocumentModel.h"
#include "PdfDocument.h"

#include <QMenu>

PagesMenu::PagesMenu(DocumentModel *model, Bindings bindings, QWidget *parent) : QToolButton(parent), model_(model)
{
    setText(tr("Pages"));
    setToolTip(tr("Merge, split, insert, extract, rotate, delete pages"));
    setIcon(QIcon::fromTheme(QStringLiteral("edit-copy")));
    setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    setPopupMode(QToolButton::InstantPopup);
    setAutoRaise(true);

    auto *menu = new QMenu(this);
    auto raise = [](const std::function<void(bool)> &flag) {
        return [flag] {
            if (flag)
                flag(true);
        };
    };
    merge_ = menu->addAction(tr("Merge PDFs…"), this, raise(bindings.showMerge));
    split_ = menu->addAction(tr("Split…"), this, raise(bindings.showSplit));
    insert_ = menu->addAction(tr("Insert Pages…"), this, raise(bindings.showInsert));
    extract_ = menu->addAction(tr("Extract Selected Pages…"), this, raise(bindings.showExtract));
    menu->addSeparator();
    rotateLeft_ = menu->addAction(tr("Rotate Left"), this, [this] { model_->rotateCurrentPage(-90); });
    rotateRight_ = menu->addAction(tr("Rotate Right"), this, [this] { model_->rotateCurrentPage(90); });
    delete_ = menu->addAction(tr("Delete Current Page"), this, &PagesMenu::deleteCurrentPage);
    setMenu(menu);

    connect(model_, &DocumentModel::pdfDocumentChanged, this, &PagesMenu::updateEnabling);
    connect(model_, &DocumentModel::selectedPageIndicesChanged, this, &PagesMenu::updateEnabling);
    connect(model_, &DocumentModel::changesRestrictedChanged, this, &PagesMenu::updateEnabling);
    updateEnabling();
}

void PagesMenu::updateEnabling()
{
    const bool open = model_->pdfDocument() != nullptr;
    split_->setEnabled(open);
    for (QAction *action : {insert_, rotateLeft_, rotateRight_, delete_})
        action->setEnabled(open && !model_->changesRestricted());
    extract_->setEnabled(!model_->selectedPageIndices().isEmpty());
}

void PagesMenu::deleteCurrentPage()
{
    const auto document = model_->pdfDocument();
    const int index = model_->currentPageIndex();
    if (document && index >= 0 && index < document->pageCount())
        model_->deletePages({index});
}
