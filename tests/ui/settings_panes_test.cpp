// The settings panes against real objects: the profile form, the API pane's port and token, the language
// pane's pending choice, and the hot folders' form, switches and logs over a real manager.
#include <unistd.h>

#include <QTcpServer>

#include "api/LocalAPIController.h"
#include "api/LocalAPISettings.h"
#include "hotfolders/HotFoldersManager.h"
#include "services/LanguageManager.h"
#include "tests/ui/ui_test_support.h"
#include "ui/ExportProfilesSettingsView.h"
#include "ui/HotFoldersSettingsView.h"
#include "ui/LocalAPISettingsView.h"
#include "ui/SizeControls.h"
#include "ui/SmallSettingsViews.h"

namespace quillane::uitest {
namespace {

using ProfilePaneTest = UiFixture;

TEST_F(ProfilePaneTest, ANameOfSpacesCannotBeSavedEditingUpdatesInPlaceAndDeletingEndsTheEdit) {
  makeModel();
  ui::ExportProfilesSettingsView pane(
      *model_, [](const auto&) { return std::optional<QUrl>(QUrl::fromLocalFile("/tmp/chosen")); });
  QLineEdit* name = control<QLineEdit>(&pane, "settings.profiles.nameField");
  name->setText("   \t ");
  EXPECT_FALSE(control<QPushButton>(&pane, "settings.profiles.save")->isEnabled());
  pane.save();  // Return in the field
  EXPECT_TRUE(model_->exportProfiles().empty());
  name->setText("  Web \n");
  pane.setNewFormat(ImageFormat::webp);
  pane.chooseFolder();
  pane.save();
  ASSERT_EQ(model_->exportProfiles().size(), 1u);
  const ExportProfile& saved = model_->exportProfiles()[0];
  EXPECT_EQ(saved.name, "Web");  // trimmed
  EXPECT_EQ(saved.destinationFolder, QString("/tmp/chosen"));

  // Editing updates in place; deleting the edited profile returns the form to adding.
  const ExportProfile b = profile("B", ImageFormat::avif, 80.5);
  model_->upsertExportProfile(b);
  pane.startEditing(b);
  name->setText("B renamed");
  control<QCheckBox>(&pane, "size.budgetToggle")->setChecked(true);
  control<QDoubleSpinBox>(&pane, "size.budgetField")->setValue(1.5);
  control<QComboBox>(&pane, "size.unitField")->setCurrentIndex(1);  // MB
  pane.save();
  ASSERT_EQ(model_->exportProfiles().size(), 2u);
  EXPECT_EQ(model_->exportProfiles()[1].id, b.id);
  EXPECT_EQ(model_->exportProfiles()[1].quality, 80.5) << "an untouched fractional quality is kept";
  EXPECT_EQ(model_->exportProfiles()[1].sizing, (CompressionOptions{.maxBytes = 1'500'000}));
  // Applied in the window, a profile's size options come with it.
  model_->applyExportProfile(model_->exportProfiles()[1]);
  EXPECT_EQ(model_->compressionOptions().maxBytes, 1'500'000);

  // By the keys, which go on to the row now in the deleted one's place, and then to the form.
  pane.show();
  pane.activateWindow();
  ASSERT_TRUE(QTest::qWaitForWindowActive(&pane));
  const auto deleteButton = [&] {
    for (QToolButton* button : pane.findChildren<QToolButton*>("deleteButton"))
      if (button->isVisible()) return button;  // not one of the rows being replaced
    return static_cast<QToolButton*>(nullptr);
  };
  pane.startEditing(model_->exportProfiles()[1]);
  deleteButton()->setFocus();
  QTest::keyClick(deleteButton(), Qt::Key_Space);  // the first profile's
  EXPECT_EQ(name->text(), "B renamed");            // another profile: the form stays
  QWidget* focus = QApplication::focusWidget();
  ASSERT_TRUE(focus == deleteButton() && focus->accessibleDescription() == "B renamed");
  QTest::keyClick(focus, Qt::Key_Space);
  EXPECT_EQ(QApplication::focusWidget(), name);
  EXPECT_NO_THROW(control<QPushButton>(&pane, "settings.profiles.save")) << "adding again";
}

using APIPaneTest = UiFixture;

// A port is a signed decimal within range only; an invalid one reverts to the stored one.
// Opening the pane makes a token even while the API is off, and shows only the toggle.
TEST_F(APIPaneTest, InvalidPortsRevertTheToggleShowsTheServerAndAValidPortRestartsIt) {
  EXPECT_EQ(ui::parsePortText("+80"), 80);
  for (const char* bad : {"0", "-80", "65536", "80a", " 80", "+", "99999999999999999999"})
    EXPECT_FALSE(ui::parsePortText(bad).has_value()) << bad;
  makeModel();
  const auto restore = qScopeGuard([] {
    LocalAPISettings::setEnabled(false);
    LocalAPISettings::setPort(0);
  });
  LocalAPISettings::setEnabled(false);
  LocalAPISettings::setPort(50123);
  LocalAPIController controller(*model_);
  ui::LocalAPISettingsView pane(controller);
  QLineEdit* field = control<QLineEdit>(&pane, "settings.api.port");
  const auto submitPort = [&](const QString& text) {
    field->setText(text);
    pane.applyPort();
  };
  for (const char* bad : {"70000", "letters"}) {
    submitPort(bad);
    EXPECT_EQ(field->text(), "50123") << bad;
  }
  LocalAPISettings::setPort(0);
  submitPort("0");
  EXPECT_EQ(field->text(), "51823");

  EXPECT_FALSE(field->isVisibleTo(&pane) ||
               control<QGroupBox>(&pane, "settings.api.token")->isVisibleTo(&pane));
  QTcpServer probe;  // a free port, found by binding and releasing it
  ASSERT_TRUE(probe.listen(QHostAddress::LocalHost, 0));
  const int port = probe.serverPort();
  probe.close();
  control<QCheckBox>(&pane, "settings.api.enable")->setChecked(true);
  EXPECT_TRUE(field->isVisibleTo(&pane));
  submitPort(QString::number(port));
  ASSERT_TRUE(
      QTest::qWaitFor([&] { return controller.isRunning() && controller.boundPort() == port; }, 3000));
  control<QCheckBox>(&pane, "settings.api.enable")->setChecked(false);
  EXPECT_FALSE(LocalAPISettings::isEnabled());
  ASSERT_TRUE(QTest::qWaitFor([&] { return !controller.isRunning(); }, 3000));
}

TEST(LanguagePane, OnlyADifferentChoiceOffersARestartAndTheSystemDefaultRemovesTheKey) {
  LanguageManager::persist(AppLanguage::de);
  auto manager = std::make_unique<LanguageManager>(
      LanguageManager::Platform{{"fr-FR"}, [](const QString&) { return true; }, [] {}});
  ui::LanguageSettingsView pane(*manager);
  EXPECT_EQ(control<QComboBox>(&pane)->currentData().toInt(), int(AppLanguage::de));
  QPushButton* restart = control<QPushButton>(&pane, "settings.language.restartNow");
  QLabel* note = control<QLabel>(&pane, "settings.language.restartRequired");
  pane.choose(AppLanguage::de);
  EXPECT_FALSE(restart->isVisibleTo(&pane) || note->isVisibleTo(&pane));
  pane.choose(AppLanguage::ja);
  EXPECT_TRUE(restart->isVisibleTo(&pane) && note->isVisibleTo(&pane));
  EXPECT_EQ(manager->selectedLanguage(), AppLanguage::de);  // nothing applied yet

  pane.choose(std::nullopt);
  ASSERT_TRUE(restart->isVisibleTo(&pane));
  restart->click();
  EXPECT_FALSE(manager->selectedLanguage().has_value());
  LanguageManager::persist(std::nullopt);
}

class HotFoldersPaneTest : public UiFixture {
 protected:
  void SetUp() override {
    UiFixture::SetUp();
    for (const char* folder : {"in", "out"}) QDir(dir_.path()).mkpath(folder);
  }
  void TearDown() override {
    pane_.reset();
    manager_.reset();
    UiFixture::TearDown();
  }
  ui::HotFoldersSettingsView& pane() {
    if (!model_) makeModel();
    if (!manager_) manager_ = std::make_unique<HotFoldersManager>();
    if (!pane_) {
      pane_ = std::make_unique<ui::HotFoldersSettingsView>(
          *manager_, *model_, [this](const auto&) { return std::optional<QString>(chosen_); });
    }
    return *pane_;
  }
  void choose(const QString& source, const QString& destination) {
    chosen_ = source;
    pane().chooseSource();
    chosen_ = destination;
    pane().chooseDestination();
  }
  // The texts of the labels in the section titled `section`, of those named `name` when given.
  QStringList texts(const char* section, const QString& name = {}) {
    QStringList out;
    for (auto* label : control<QGroupBox>(&pane(), section)->findChildren<QLabel*>(name))
      out << label->text();
    return out;
  }

  QString in_ = dir_.filePath("in"), out_ = dir_.filePath("out");
  QString chosen_;
  std::unique_ptr<HotFoldersManager> manager_;
  std::unique_ptr<ui::HotFoldersSettingsView> pane_;
};

TEST_F(HotFoldersPaneTest, FormNeedsANameAndTwoDifferentFoldersAndAProfileReplacesFormatAndQuality) {
  const QString link = dir_.filePath("link");
  ASSERT_EQ(::symlink(QFile::encodeName(out_).constData(), QFile::encodeName(link).constData()), 0);
  QLineEdit* name = control<QLineEdit>(&pane(), "settings.profiles.nameField");
  QPushButton* save = control<QPushButton>(&pane(), "settings.profiles.save");
  name->setText("  \t");
  choose(in_, out_);
  EXPECT_FALSE(save->isEnabled());
  name->setText(" Camera ");
  EXPECT_TRUE(save->isEnabled());
  choose(link, out_);
  EXPECT_FALSE(save->isEnabled());
  EXPECT_FALSE(control<QLabel>(&pane(), "settings.hotFolders.sameFolderWarning")->isHidden());
  pane().save();
  EXPECT_TRUE(manager_->hotFolders().empty());

  choose(in_, out_);
  pane().setNewQuality(62);
  pane().save();
  ASSERT_EQ(manager_->hotFolders().size(), 1u);
  const HotFolder saved = manager_->hotFolders()[0];
  EXPECT_EQ(std::tuple(saved.name, saved.format, saved.quality),
            std::tuple(QString("Camera"), std::optional(ImageFormat::jpeg), std::optional(62.0)));
  EXPECT_EQ(save->text(), Strings::text("settings.profiles.save"));  // the form is blank again

  // A profile replaces format and quality, which come back without it.
  model_->upsertExportProfile(profile("Web", ImageFormat::webp, 80));
  name->setText("Shots");
  choose(in_, out_);
  pane().setNewFormat(ImageFormat::avif);
  pane().setNewProfileName(QString("Web"));
  EXPECT_TRUE(control<QPushButton>(&pane(), "format.label")->isHidden());
  QPushButton* profileButton = control<QPushButton>(&pane(), "settings.hotFolders.profileField");
  EXPECT_TRUE(profileButton->isVisibleTo(&pane()) && profileButton->text() == "Web" &&
              profileButton->menu()->actions().last()->isChecked());
  // The folder's own size options stand beside the profile.
  control<QCheckBox>(&pane(), "size.fitToggle")->setChecked(true);
  control<QSpinBox>(&pane(), "size.widthField")->setValue(1600);
  control<QSpinBox>(&pane(), "size.heightField")->setValue(0);
  pane().save();
  const HotFolder withProfile = manager_->hotFolders().at(1);
  EXPECT_EQ(withProfile.profileName, QString("Web"));
  EXPECT_FALSE(withProfile.format || withProfile.quality);
  EXPECT_EQ(withProfile.sizing, (CompressionOptions{.maxWidth = 1600}));
  EXPECT_FALSE(control<ui::SizeOptionsEditor>(&pane())->options().any()) << "a new form starts with them off";

  pane().startEditing(withProfile);
  EXPECT_EQ(control<ui::SizeOptionsEditor>(&pane())->options(), withProfile.sizing);
  pane().setNewProfileName(std::nullopt);
  QPushButton* format = control<QPushButton>(&pane(), "format.label");
  EXPECT_TRUE(!format->isHidden() && format->text() == "JPEG");
  EXPECT_EQ(control<QSlider>(&pane(), "quality.label")->value(), 75);
}

TEST_F(HotFoldersPaneTest, SwitchStopsTheFolderAndTheLogsShowTheNewestLines) {
  // 30 folders whose source is missing: 30 error lines at launch, and nothing else.
  HotFolderList folders;
  for (int i = 0; i < 30; ++i)
    folders.push_back(hotFolder(QString("F%1").arg(i), dir_.filePath("missing"), out_, ImageFormat::png, 50));
  folders.push_back(hotFolder("Live", in_, out_, ImageFormat::webp, 80));
  HotFolders::save(folders);
  pane();
  // Each row says what its folder is doing. The folders report from their own threads, in no
  // fixed order, and their rows' states follow their reports.
  auto stateCount = [&](const char* key) {
    return texts("settings.hotFolders.existingSection", "statusText").count(Strings::text(key));
  };
  ASSERT_TRUE(QTest::qWaitFor(
      [&] {
        return manager_->isRunning(folders.back().id) && manager_->recentActivity().size() == 30 &&
               stateCount("settings.hotFolders.stateWaiting") == 30 &&
               stateCount("settings.hotFolders.stateWatching") == 1;
      },
      10000));
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);  // the lines replaced
  const std::vector<HotFolderActivity> newest = manager_->recentActivity();
  auto title = [&](size_t i) { return newest[i].hotFolderName + " — "; };
  const QStringList errors = texts("settings.hotFolders.errorLogSection");
  EXPECT_TRUE(errors.contains(title(0)) && errors.contains(title(19)) && !errors.contains(title(20)));
  EXPECT_TRUE(texts("settings.hotFolders.activitySection").contains(title(4)));

  QList<QCheckBox*> switches = pane().findChildren<QCheckBox*>("enabledSwitch");
  ASSERT_EQ(switches.size(), 31);
  switches.back()->setChecked(false);
  ASSERT_TRUE(QTest::qWaitFor([&] { return !manager_->isRunning(folders.back().id); }, 5000));
  EXPECT_FALSE(manager_->hotFolders().back().isEnabled);

  control<QPushButton>(&pane(), "common.clearAll")->click();
  EXPECT_TRUE(texts("settings.hotFolders.errorLogSection")
                  .contains(Strings::text("settings.hotFolders.errorLogEmpty")));
  EXPECT_TRUE(texts("settings.hotFolders.activitySection")
                  .contains(Strings::text("settings.hotFolders.activityEmpty")));
}

}  // namespace
}  // namespace quillane::uitest
