#include "Views/PresetPills.h"

#include "Models/EQPresets.h"
#include "Views/PillButton.h"
#include "Views/SORVATheme.h"

#include <QResizeEvent>

#include <algorithm>
#include <cmath>

namespace sorva {

PresetPills::PresetPills(EQController& controller, QWidget* parent)
    : QWidget(parent)
    , controller(controller)
{
    const QFont font = SORVATheme::font(10, QFont::DemiBold, 0.6);
    const PillButton::Face normal { font, SORVATheme::white(0.7), SORVATheme::white(0.08) };
    const PillButton::Face selected { font, SORVATheme::ink(), SORVATheme::yellow() };
    const auto& presets = EQPresets::all();
    for (size_t i = 0; i < presets.size(); ++i) {
        auto* pill = new PillButton(QString::fromStdString(presets[i].name).toUpper(), font, this);
        pill->setFaces(normal, selected);
        pill->setPadding(QMarginsF(horizontalPadding, verticalPadding, horizontalPadding, verticalPadding));
        connect(pill, &PillButton::clicked, this, [this, i] { this->controller.apply(EQPresets::all()[i]); });
        pillButtons.push_back(pill);
    }
    connect(&controller, &EQController::configChanged, this, &PresetPills::refreshSelection);

    QSizePolicy policy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    policy.setHeightForWidth(true);
    setSizePolicy(policy);
    refreshSelection();
    placePills();
}

PresetPills::Arrangement PresetPills::arrange(double width) const
{
    std::vector<QSizeF> texts;
    for (const PillButton* pill : pillButtons)
        texts.push_back(pill->textSize());
    const double pillHeight = texts.empty() ? 0 : std::ceil(texts.front().height() + 2 * verticalPadding);
    auto pillWidth = [](const QSizeF& text, double padding) { return std::ceil(text.width() + 2 * padding); };
    auto rowWidth = [&](double gap, double padding) {
        double total = 0;
        for (const QSizeF& text : texts)
            total += pillWidth(text, padding);
        return total + gap * static_cast<double>(std::max<size_t>(texts.size(), 1) - 1);
    };

    Arrangement result { spacing, horizontalPadding, {}, pillHeight };
    if (rowWidth(spacing, horizontalPadding) > width) {
        result.spacing = minimumSpacing;
        result.padding = minimumHorizontalPadding;
    }

    // Fill rows left to right, then centre each row.
    std::vector<std::vector<size_t>> rows(1);
    double used = 0;
    for (size_t i = 0; i < texts.size(); ++i) {
        const double w = pillWidth(texts[i], result.padding);
        if (!rows.back().empty() && used + result.spacing + w > width) {
            rows.emplace_back();
            used = 0;
        }
        used += (rows.back().empty() ? 0 : result.spacing) + w;
        rows.back().push_back(i);
    }
    result.frames.resize(texts.size());
    double y = 0;
    for (const auto& row : rows) {
        double total = 0;
        for (size_t i : row)
            total += pillWidth(texts[i], result.padding);
        total += result.spacing * static_cast<double>(std::max<size_t>(row.size(), 1) - 1);
        double x = std::floor((width - total) / 2);
        for (size_t i : row) {
            const double w = pillWidth(texts[i], result.padding);
            result.frames[i] = QRectF(x, y, w, pillHeight);
            x += w + result.spacing;
        }
        y += pillHeight + result.spacing;
    }
    result.height = rows.size() * pillHeight + (rows.size() - 1) * result.spacing;
    return result;
}

void PresetPills::placePills()
{
    const Arrangement arrangement = arrange(width());
    for (size_t i = 0; i < pillButtons.size(); ++i) {
        pillButtons[i]->setPadding(
            QMarginsF(arrangement.padding, verticalPadding, arrangement.padding, verticalPadding));
        pillButtons[i]->setGeometry(arrangement.frames[i].toRect());
    }
    // Wrapped rows need more height than a row: asking for it as a minimum
    // makes every enclosing layout (and the window) make room.
    const int needed = static_cast<int>(std::ceil(arrangement.height));
    if (needed != minimumHeight())
        setMinimumHeight(needed);
}

QSize PresetPills::sizeHint() const
{
    // One row at full spacing and padding.
    const Arrangement arrangement = arrange(1e6);
    double right = 0;
    double left = 1e6;
    for (const QRectF& frame : arrangement.frames) {
        right = std::max(right, frame.right());
        left = std::min(left, frame.left());
    }
    const double width = arrangement.frames.empty() ? 0 : right - left;
    return QSize(static_cast<int>(std::ceil(width)), static_cast<int>(std::ceil(arrangement.height)));
}

QSize PresetPills::minimumSizeHint() const
{
    const Arrangement arrangement = arrange(0);
    double widest = 0;
    for (const QRectF& frame : arrangement.frames)
        widest = std::max(widest, frame.width());
    return QSize(static_cast<int>(std::ceil(widest)), static_cast<int>(std::ceil(arrange(1e6).height)));
}

int PresetPills::heightForWidth(int width) const
{
    return static_cast<int>(std::ceil(arrange(width).height));
}

void PresetPills::resizeEvent(QResizeEvent* event)
{
    QWidget::resizeEvent(event);
    placePills();
}

void PresetPills::refreshSelection()
{
    const std::optional<EQPreset> match = EQPresets::matching(controller.config().bands);
    const auto& presets = EQPresets::all();
    for (size_t i = 0; i < pillButtons.size(); ++i)
        pillButtons[i]->setSelected(match && *match == presets[i]);
}

} // namespace sorva
