#pragma once

#include "ui/imagedialog.h"

class CImageButton;

// Stands in for a feature page that is not built yet: it names the feature,
// says what it will do and that it is coming, and has a working Back.
class CComingSoonPage final : public ImageDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CComingSoonPage)

public:
    enum class Feature { Burn, Extract, Create, Edit, Copy };

    explicit CComingSoonPage(Feature feature);

    Feature Which() const { return m_feature; }
    QString Title() const;
    QString Description() const;
    CImageButton* BackButton() const { return m_back; }

public Q_SLOTS:
    // Closes the page for good: nothing of it outlives the Back.
    void OnBack();

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QString TilePicture() const;

    Feature m_feature;
    CImageButton* m_back = nullptr;
};
