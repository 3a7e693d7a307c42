// The views that talk to the controller or the window: preset pills on the
// controller with the simulated audio system, the window styler, the logo and
// the theme's fonts.
#include "Views/GlassBackground.h"
#include "Views/PanelWindowStyler.h"
#include "Views/PillButton.h"
#include "Views/PresetPills.h"
#include "Views/SORVALogo.h"
#include "Views/SORVATheme.h"

#include "Audio/EQController.h"
#include "Models/EQPresets.h"
#include "ViewsTestSupport.h"

#include <gtest/gtest.h>

#include <QFontInfo>
#include <QFrame>
#include <QVBoxLayout>

namespace sorva {
namespace {

using namespace std::chrono_literals;

class PresetPillsTest : public ::testing::Test {
protected:
    std::vector<bool> selection(const PresetPills& pills) const
    {
        std::vector<bool> selected;
        for (const PillButton* pill : pills.pills())
            selected.push_back(pill->isSelected());
        return selected;
    }

    testing::SimulatedController simulated;
    EQController* controller = simulated.controller.get();
};

TEST_F(PresetPillsTest, ClickAppliesThePresetTheHighlightFollowsTheConfigurationAndPillsStayWhole)
{
    PresetPills pills(*controller);
    ASSERT_EQ(pills.pills().size(), 4u);
    EXPECT_EQ(pills.pills()[0]->text(), QStringLiteral("AIRPODS"));
    EXPECT_EQ(pills.pills()[3]->text(), QStringLiteral("ROCK"));
    EXPECT_EQ(selection(pills), (std::vector<bool> { false, false, false, false })); // flat matches nothing

    const EQPreset& rock = EQPresets::all()[3];
    for (int click = 0; click < 2; ++click) { // the selected pill applies again and stays selected
        pills.pills()[3]->click();
        for (size_t i = 0; i < rock.gains.size(); ++i)
            EXPECT_EQ(controller->config().bands[i].gain, rock.gains[i]);
        EXPECT_EQ(controller->config().outputGain, rock.outputGain);
        EXPECT_EQ(selection(pills), (std::vector<bool> { false, false, false, true }));
    }

    // An edit within half a decibel still matches; a larger one clears the
    // highlight although Rock was the last pill clicked.
    EQConfig edited = controller->config();
    edited.bands[2].gain += 0.4;
    controller->setConfig(edited);
    EXPECT_EQ(selection(pills), (std::vector<bool> { false, false, false, true }));
    edited.bands[2].gain += 1;
    controller->setConfig(edited);
    EXPECT_EQ(selection(pills), (std::vector<bool> { false, false, false, false }));

    // Gains set elsewhere to a preset's select its pill.
    EQConfig vocal = controller->config();
    for (size_t i = 0; i < vocal.bands.size(); ++i)
        vocal.bands[i].gain = EQPresets::all()[1].gains[i];
    controller->setConfig(vocal);
    EXPECT_EQ(selection(pills), (std::vector<bool> { false, true, false, false }));

    // One row at the panel's width; narrower, rows of whole pills apart.
    pills.show(); // resizes reach a shown widget at once
    for (int width : { 280, 60 }) {
        pills.resize(width, pills.heightForWidth(width));
        std::vector<QRect> frames;
        for (const PillButton* pill : pills.pills()) {
            EXPECT_GE(pill->width(), pill->textSize().width()) << width;
            for (const QRect& other : frames)
                EXPECT_FALSE(pill->geometry().intersects(other)) << width;
            frames.push_back(pill->geometry());
        }
        EXPECT_EQ(frames.front().top() == frames.back().top(), width == 280) << width;
    }
}

TEST(PanelWindowStyler, StylesItsWindowHidesForeignBackgroundsAndDumpsWhenAsked)
{
    setenv("SORVA_INSPECT", "1", 1);
    sorva::testing::LogCapture log;
    QWidget window;
    auto* glass = new GlassBackground(GlassBackground::hudWindow, &window);
    glass->setAutoFillBackground(true);
    auto* foreign = new QFrame(&window);
    foreign->setFrameShape(QFrame::Box);
    foreign->setAutoFillBackground(true);
    auto* container = new QWidget(&window); // the styler's ancestor keeps its background
    container->setAutoFillBackground(true);
    auto* styler = new PanelWindowStyler(container);
    new QVBoxLayout(container);
    window.resize(320, 200);
    window.show();
    // Styling waits one turn of the event loop after the show.
    ASSERT_TRUE(testing::processEventsUntil([&] { return styler->styledCount() > 0; }, 5s));
    unsetenv("SORVA_INSPECT");
    EXPECT_TRUE(window.testAttribute(Qt::WA_TranslucentBackground));
    EXPECT_TRUE(window.windowFlags().testFlag(Qt::FramelessWindowHint));
    EXPECT_FALSE(foreign->autoFillBackground());
    EXPECT_EQ(foreign->frameShape(), QFrame::NoFrame);
    EXPECT_TRUE(container->autoFillBackground());
    EXPECT_TRUE(glass->autoFillBackground());
    EXPECT_LT(window.palette().color(QPalette::Window).lightness(), 64);
    // The dump: the window line, then a line per widget.
    const std::vector<std::string> lines = log.taken();
    ASSERT_GE(lines.size(), 6u);
    EXPECT_TRUE(lines[0].starts_with("window QWidget 320x200")) << lines[0];
    EXPECT_EQ(lines[1], "QWidget frame=320x200 corner=12 sublayers=3");
}

TEST(SORVALogo, ShowsTheImageAtItsHeightOrTheWordWithoutIt)
{
    SORVALogo logo(34);
    ASSERT_TRUE(logo.showsImage());
    EXPECT_EQ(logo.sizeHint().height(), 34);
    EXPECT_GT(logo.sizeHint().width(), 34);

    SORVALogo fallback(34, QStringLiteral(":/no-such-logo.svg"));
    EXPECT_FALSE(fallback.showsImage());
    EXPECT_GT(fallback.sizeHint().width(), fallback.sizeHint().height()); // room for the word
}

TEST(SORVATheme, UsesTheBundledUrbanistFacesOrSaysWhyNot)
{
    testing::LogCapture log;
    const bool registered = SORVATheme::registerFonts(); // already ran once: logs nothing more
    EXPECT_TRUE(log.taken().empty());
#ifdef SORVA_HAVE_URBANIST
    ASSERT_TRUE(registered);
    // The three weights resolve to their own faces, at pixel sizes.
    for (auto weight : { QFont::Normal, QFont::Medium, QFont::DemiBold }) {
        const QFont font = SORVATheme::font(10, weight);
        const QFontInfo info(font);
        EXPECT_EQ(info.family(), QStringLiteral("Urbanist"));
        EXPECT_EQ(info.weight(), weight);
        EXPECT_EQ(info.pixelSize(), 10);
    }
#else
    EXPECT_FALSE(registered);
#endif
    // A pair outside the prepared seven is still the theme's family and size.
    const QFont other = SORVATheme::font(13, QFont::Normal, 0.8);
    EXPECT_EQ(other.pixelSize(), 13);
    EXPECT_EQ(other.family(), QStringLiteral("Urbanist"));
    EXPECT_NEAR(other.letterSpacing(), 0.8, 1.0 / 64); // stored in 1/64 pixel
}

} // namespace
} // namespace sorva
