#pragma once

#include <QAbstractButton>
#include <QSvgRenderer>
#include <QWidget>
#include <functional>
#include <string>
#include <vector>

namespace zu {
class KivMediaCaptureAndPlayViewController;
}

// The capture screen's own widgets; the screen's widget places them and mirrors the model into them.
namespace zu::detail {

/// A round button that shows one of the screen's images (by asset name), dimmed while disabled.
class ImageButton final : public QAbstractButton {
 public:
  explicit ImageButton(QWidget* parent);
  void setImageName(const QString& name);
  const QString& imageName() const { return imageName_; }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  QString imageName_;
  QSvgRenderer renderer_;
};

/// Two or more segments side by side, one selected; a press on another segment is reported.
class SegmentedControlWidget final : public QWidget {
 public:
  SegmentedControlWidget(QWidget* parent, std::function<void(int index)> picked);
  void setSegments(const std::vector<std::string>& titles, int selectedIndex);
  int selectedIndex() const { return selectedIndex_; }

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;

 private:
  std::function<void(int index)> picked_;
  QStringList titles_;
  int selectedIndex_ = -1;
};

/// A widget that fills itself with a colour (the bottom panel, behind its controls).
class FilledWidget final : public QWidget {
 public:
  explicit FilledWidget(QWidget* parent) : QWidget(parent) {}
  void setFill(const QColor& fill);

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  QColor fill_;
};

/// Paints the screen's preview: the camera, over it the player, over that the photo.
class PreviewArea final : public QWidget {
 public:
  PreviewArea(QWidget* parent, const KivMediaCaptureAndPlayViewController& controller);

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  const KivMediaCaptureAndPlayViewController& controller_;
};

}  // namespace zu::detail
