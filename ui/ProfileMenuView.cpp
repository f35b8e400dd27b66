#include "ui/ProfileMenuView.h"

#include <QActionGroup>
#include <QHBoxLayout>
#include <QMenu>
#include <QPushButton>

#include "batch/BatchViewModel.h"
#include "records/ExportProfile.h"
#include "services/Strings.h"
#include "ui/Mnemonics.h"
#include "ui/QualityControls.h"

namespace quillane::ui {

ExportProfileMenuView::ExportProfileMenuView(BatchViewModel& viewModel, QWidget* parent)
    : QWidget(parent), viewModel_(viewModel) {
  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(8);
  // No "Profile" label before the button: its placeholder says as much, and the bar must hold
  // on one line at the default window size in every language.
  button_ = new QPushButton(this);
  menu_ = new QMenu(button_);
  button_->setMenu(menu_);
  layout->addWidget(button_);
  connect(menu_, &QMenu::aboutToShow, this, &ExportProfileMenuView::rebuildMenu);
  connect(&viewModel_, &BatchViewModel::exportProfilesChanged, this, &ExportProfileMenuView::refresh);
  connect(&viewModel_, &BatchViewModel::appliedProfileNameChanged, this, &ExportProfileMenuView::refresh);
  refresh();
}

QString ExportProfileMenuView::title() const {
  const auto& applied = viewModel_.appliedProfileName();
  if (applied && !applied->isEmpty()) return *applied;
  return Strings::text("profiles.menu.placeholder");
}

void ExportProfileMenuView::refresh() {
  setVisible(!viewModel_.exportProfiles().empty());
  setToolTip(Strings::text("profiles.menu.help"));
  button_->setToolTip(toolTip());
  setMenuButtonText(button_, title(), 150);
  rebuildMenu();
}

void ExportProfileMenuView::rebuildMenu() {
  menu_->clear();
  QAction* none = menu_->addAction(Strings::text("profiles.menu.none"));
  // Forgets the applied name only: quality, format and the export folder stay.
  connect(none, &QAction::triggered, this, [this] { viewModel_.setAppliedProfileName(std::nullopt); });
  menu_->addSeparator();
  const auto& applied = viewModel_.appliedProfileName();
  // The applied one checked, as the format menus' choice is: screen readers say so, where they
  // would say nothing of a checkmark drawn as its icon.
  qDeleteAll(menu_->findChildren<QActionGroup*>(Qt::FindDirectChildrenOnly));
  auto* choices = new QActionGroup(menu_);
  choices->setExclusive(true);
  for (const ExportProfile& profile : viewModel_.exportProfiles()) {
    QAction* action = menu_->addAction(profile.name);
    action->setCheckable(true);
    action->setChecked(applied && *applied == profile.name);
    choices->addAction(action);
    const QUuid id = profile.id;
    connect(action, &QAction::triggered, this, [this, id] {
      for (const ExportProfile& p : viewModel_.exportProfiles())
        if (p.id == id) {
          viewModel_.applyExportProfile(p);
          return;
        }
    });
  }
  Mnemonics::assign(menu_);
}

}  // namespace quillane::ui
