// The band slider: its drawing at the ends and the middle of the scale, the
// drag rule, that only changes are written, and its label kept whole.
#include "Views/VerticalGainSlider.h"

#include "ViewsTestSupport.h"

#include <gtest/gtest.h>

#include <QFontMetricsF>
#include <QKeyEvent>
#include <QMouseEvent>

#include <vector>

namespace sorva {
namespace {

using testing::near;
using testing::render;
using testing::withAlpha;

TEST(VerticalGainSlider, DragRuleMapsTheTrackOntoWholeDecibels)
{
    const double h = 116;
    struct Case {
        double y;
        double gain;
    };
    const Case cases[] = {
        { 0, 24 }, // the very top
        { -30, 24 }, // above the track: limited to the top
        { h / 2, 0 }, // exactly halfway
        { h, -24 }, // the bottom
        { h + 40, -24 }, // below the track
        { h * (1 - 26.5 / 48), 3 }, // 2.5 dB rounds away from zero
        { h * (1 - 21.5 / 48), -3 }, // so does -2.5 dB
        { h * (1 - 26.4 / 48), 2 },
        { 1, 24 }, // one point down: 23.59 dB
        { 2, 23 }, // two points: 23.17 dB
    };
    for (const Case& c : cases)
        EXPECT_EQ(VerticalGainSlider::gainAt(c.y, h), c.gain) << "y = " << c.y;
}

void mouse(QWidget& widget, QEvent::Type type, double y, Qt::MouseButtons buttons)
{
    const QPointF at(widget.width() / 2.0, y);
    QMouseEvent event(type, at, widget.mapToGlobal(at), type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton,
                      buttons, Qt::NoModifier);
    QApplication::sendEvent(&widget, &event);
}

TEST(VerticalGainSlider, WritesOnlyChangesFromDragsAndKeys)
{
    VerticalGainSlider slider;
    slider.setTrackSize(116, 5);
    slider.resize(40, slider.sizeHint().height());
    std::vector<double> written;
    int touches = 0;
    QObject::connect(&slider, &VerticalGainSlider::gainEdited, [&](double gain) { written.push_back(gain); });
    QObject::connect(&slider, &VerticalGainSlider::touched, [&] { ++touches; });
    const double top = slider.trackRect().top();

    mouse(slider, QEvent::MouseButtonPress, top, Qt::LeftButton); // +24
    mouse(slider, QEvent::MouseMove, top + 0.2, Qt::LeftButton); // still +24: nothing written
    mouse(slider, QEvent::MouseMove, top + 58, Qt::LeftButton); // 0
    mouse(slider, QEvent::MouseMove, top + 200, Qt::LeftButton); // far below: -24
    mouse(slider, QEvent::MouseMove, top + 300, Qt::LeftButton); // still -24
    mouse(slider, QEvent::MouseButtonRelease, top + 300, Qt::NoButton);
    EXPECT_EQ(written, (std::vector<double> { 24, 0, -24 }));
    EXPECT_EQ(slider.gain(), -24);
    EXPECT_EQ(touches, 5);

    // A press on the label selects the band without touching the gain.
    written.clear();
    mouse(slider, QEvent::MouseButtonPress, top + 116 + 12, Qt::LeftButton);
    mouse(slider, QEvent::MouseMove, top + 10, Qt::LeftButton);
    mouse(slider, QEvent::MouseButtonRelease, top + 10, Qt::NoButton);
    EXPECT_TRUE(written.empty());
    EXPECT_EQ(touches, 7);

    // Keys step in whole decibels within the scale; setGain writes nothing.
    slider.setGain(23);
    for (int key : { Qt::Key_Up, Qt::Key_Up, Qt::Key_Down, Qt::Key_PageDown, Qt::Key_Home, Qt::Key_Left }) {
        QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier);
        QApplication::sendEvent(&slider, &press);
    }
    EXPECT_EQ(written, (std::vector<double> { 24, 23, 20, -24 }));

    // A label wider than the column is never cut.
    const QString label = QStringLiteral("A label much wider than a column");
    slider.setLabel(label);
    const QFontMetricsF metrics(SORVATheme::font(10, QFont::Medium));
    EXPECT_GE(slider.minimumSizeHint().width(), metrics.horizontalAdvance(label));
}

TEST(VerticalGainSlider, DrawsFillAndKnobAtTheEndsAndTheMiddleOfTheScale)
{
    // Track 116 × 5 centred in a 40 wide control, from y 6 to 122; pixel
    // column 19 lies fully inside it.
    struct Case {
        double gain;
        bool active;
        int knobCentre; // pixel row under the knob's centre
        std::vector<int> filled; // pixel rows inside the gradient fill and clear of the knob
        std::vector<int> empty; // pixel rows of bare track
    };
    const Case cases[] = {
        { -24, false, 116, {}, { 20, 60, 100 } }, // knob on the bottom: 112…122
        { 0, false, 65, { 75, 110 }, { 20, 50 } }, // lift 51.5: knob 60.5…70.5, fill from 64
        { 24, true, 12, { 30, 110 }, {} }, // lift 103: knob 6…19
    };
    for (const Case& c : cases) {
        VerticalGainSlider slider;
        slider.setGain(c.gain);
        slider.setActive(c.active);
        const QImage image = render(slider, QSize(40, slider.sizeHint().height()));
        EXPECT_TRUE(near(image.pixelColor(19, c.knobCentre), Qt::white)) << c.gain;
        for (int y : c.filled) {
            // Opaque, between violet (103, 48, 220) and magenta (187, 44, 144).
            const QColor fill = image.pixelColor(19, y);
            EXPECT_TRUE(fill.alpha() == 255 && fill.red() >= 100 && fill.red() <= 190 && fill.green() < 60
                        && fill.blue() >= 140)
                << c.gain << " row " << y << " " << fill.name(QColor::HexArgb).toStdString();
        }
        for (int y : c.empty)
            EXPECT_TRUE(near(image.pixelColor(19, y), withAlpha(Qt::white, 0.1), 3)) << c.gain << " row " << y;
        // The glow only around the active knob, just beyond its edge.
        const QColor glow = image.pixelColor(28, c.knobCentre);
        EXPECT_EQ(glow.alpha() > 40 && glow.red() > glow.green(), c.active) << c.gain;
        EXPECT_EQ(glow.alpha() == 0, !c.active) << c.gain;
    }
}

} // namespace
} // namespace sorva
