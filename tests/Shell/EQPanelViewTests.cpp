// The panel's controls on a controller that is switched off: what may be
// pressed, where edits go, and how the credits and the panel close.
#include "Views/EQPanelView.h"

#include "Audio/EQController.h"
#include "Models/LoginItem.h"
#include "Views/CapsuleButton.h"
#include "Views/CreditsOverlay.h"
#include "Views/CreditsView.h"
#include "Views/PillButton.h"
#include "Views/SwitchToggle.h"
#include "Views/VerticalGainSlider.h"
#include "Views/ViewsTestSupport.h"

#include <QLabel>
#include <QSignalSpy>
#include <QSlider>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>

namespace sorva {
namespace {

class EQPanelViewTest : public ::testing::Test {
protected:
    EQPanelViewTest()
    {
        panel = std::make_unique<EQPanelView>(*controller, false);
        panel->show();
    }

    template <typename Widget> Widget* child(const char* name)
    {
        auto* widget = panel->findChild<Widget*>(QString::fromLatin1(name));
        EXPECT_NE(widget, nullptr) << name;
        return widget;
    }

    testing::SimulatedController simulated;
    EQController* controller = simulated.controller.get();
    std::unique_ptr<EQPanelView> panel;
};

TEST_F(EQPanelViewTest, WhileOffTheBypassIsLockedAndEditsStillReachTheConfiguration)
{
    EXPECT_EQ(panel->width(), EQPanelView::panelWidth);
    EXPECT_FALSE(child<CapsuleButton>("abPill")->isEnabled());
    QTest::mouseClick(child<CapsuleButton>("abPill"), Qt::LeftButton);
    EXPECT_FALSE(controller->isBypassed());
    EXPECT_TRUE(child<VerticalGainSlider>("bandSlider0")->isDimmed());
    EXPECT_EQ(child<QLabel>("statusText")->text(), QString::fromUtf8("Off \u2014 audio untouched"));

    // A press on a band's column makes it the active band and sets its gain.
    auto* treble = child<VerticalGainSlider>("bandSlider4");
    const QRectF track = treble->trackRect();
    QTest::mouseClick(treble, Qt::LeftButton, {}, QPoint(treble->width() / 2, qRound(track.top() + 2)));
    EXPECT_EQ(panel->activeBand(), 4);
    EXPECT_GT(controller->config().bands[4].gain, 20);
    EXPECT_TRUE(treble->isActive());

    // The output slider moves in half decibels and shows its value signed.
    auto* output = child<QSlider>("outputSlider");
    output->setFocus();
    for (int step = 0; step < 3; ++step)
        QTest::keyClick(output, Qt::Key_Left);
    EXPECT_DOUBLE_EQ(controller->config().outputGain, -1.5);
    QTest::keyClick(output, Qt::Key_Home);
    EXPECT_DOUBLE_EQ(controller->config().outputGain, -6.0);
    QTest::keyClick(output, Qt::Key_End);
    EXPECT_DOUBLE_EQ(controller->config().outputGain, 6.0);

    // The login switch shows what the autostart folder really holds.
    auto* login = child<SwitchToggle>("loginSwitch");
    EXPECT_FALSE(login->isChecked());
    QTest::mouseClick(login, Qt::LeftButton);
    EXPECT_TRUE(login->isChecked());
    EXPECT_TRUE(LoginItem::isEnabled());
    QTest::mouseClick(login, Qt::LeftButton);
    EXPECT_FALSE(login->isChecked());
    EXPECT_FALSE(LoginItem::isEnabled());
}

TEST_F(EQPanelViewTest, CreditsCloseOnTheBackdropAndEscapeClosesThePanelLast)
{
    QSignalSpy closeRequests(panel.get(), &EQPanelView::closeRequested);
    auto* overlay = panel->findChild<CreditsOverlay*>();
    ASSERT_NE(overlay, nullptr);

    QTest::mouseClick(child<CapsuleButton>("creditsLink"), Qt::LeftButton);
    ASSERT_TRUE(panel->showingCredits());
    EXPECT_TRUE(overlay->isVisible());
    EXPECT_EQ(overlay->geometry(), panel->rect());
    // On the card itself: stays open.
    QTest::mouseClick(overlay, Qt::LeftButton, {}, overlay->rect().center());
    EXPECT_TRUE(panel->showingCredits());
    // On the dimmed backdrop, outside the card: closes.
    QTest::mouseClick(overlay, Qt::LeftButton, {}, QPoint(4, 4));
    EXPECT_FALSE(panel->showingCredits());
    EXPECT_FALSE(overlay->isVisible());

    // So does the card's CLOSE button.
    QTest::mouseClick(child<CapsuleButton>("creditsLink"), Qt::LeftButton);
    overlay->findChild<CreditsView*>()->closeButton()->click();
    EXPECT_FALSE(panel->showingCredits());

    // Escape closes the credits first, then asks for the panel to close.
    QTest::mouseClick(child<CapsuleButton>("creditsLink"), Qt::LeftButton);
    QTest::keyClick(overlay, Qt::Key_Escape);
    EXPECT_FALSE(panel->showingCredits());
    EXPECT_EQ(closeRequests.count(), 0);
    QTest::keyClick(panel.get(), Qt::Key_Escape);
    EXPECT_EQ(closeRequests.count(), 1);
}

} // namespace
} // namespace sorva
