// The product logo in the panel's header and on the credits card: the SVG
// resource ":/logo.svg" scaled to the given height, keeping its aspect ratio;
// when the resource is missing or unreadable, the text "SORVA" in the theme's
// title font (22 semibold), white, letter spacing 2.
//
// Threads: the main thread only.
#pragma once

#include <QString>
#include <QWidget>

#include <memory>

class QSvgRenderer;

namespace sorva {

class SORVALogo final : public QWidget {
    Q_OBJECT
public:
    static constexpr const char* defaultResource = ":/logo.svg";

    explicit SORVALogo(double height, QWidget* parent = nullptr);
    // resource: another image path (tests use a missing one for the fallback).
    SORVALogo(double height, const QString& resource, QWidget* parent = nullptr);
    ~SORVALogo() override;

    double logoHeight() const { return heightValue; }
    void setLogoHeight(double height);
    // Whether the image was found (else the text is shown).
    bool showsImage() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    double heightValue;
    std::unique_ptr<QSvgRenderer> renderer;
};

} // namespace sorva
