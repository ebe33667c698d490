// The drop shadow under every window's backing frame. Qt's effect renders the whole frame and
// blurs it, in three window-sized images, on every repaint of anything above it (each
// progress step); this one blurs a small frame of the same look once and stretches it, and
// draws only where the window is being repainted.
#pragma once

#include <QGraphicsDropShadowEffect>
#include <QImage>
#include <QRegion>
#include <QSize>

#include <optional>

class ShadowEffect final : public QGraphicsDropShadowEffect
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(ShadowEffect)

public:
    // frame: the widget the effect is set on, a child of its window; the frame's look is
    // watched so that the tile follows it, the window's repaints so that nothing else is covered.
    explicit ShadowEffect(QWidget *frame, QObject *parent = nullptr);

    // `content` (taken over) with Qt's own effect of these properties, on a transparent image
    // of the effect's bounding size: how the tile is made, and the yardstick it is held to.
    QImage renderWithQtEffect(QWidget *content, qreal dpr) const;

protected:
    void draw(QPainter *painter) override;
    void sourceChanged(ChangeFlags flags) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void drawShadow(QPainter *painter);
    QImage smallFrame(const QSize &tileFrame, qreal dpr);

    QWidget *m_frame; // owns the effect
    // What the window repaints now, in the frame's coordinates: set by the window's paint
    // event, which comes just before its children are drawn, and taken by the next draw.
    std::optional<QRegion> m_repaint;

    QImage m_tile;     // null until drawn, and after any change of the frame or of the shadow
    QSize m_tileFrame; // the small frame's size in device-independent pixels
    qreal m_tileDpr = 0;
};
