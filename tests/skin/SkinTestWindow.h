// SPDX-License-Identifier: GPL-3.0-or-later
// A window dressed by a skin the way the main window is: its own object first, then every
// control object in order. Lets the tests look at a whole skin without the rest of the panel.
#pragma once

#include <map>
#include <string>

#include <QWidget>

#include "DynBitmap.h"
#include "DynRgn.h"

namespace larimo::test {

class SkinTestWindow : public QWidget {
public:
    SkinTestWindow();

    /// Loads `skinFile`; false with the failing object in `error`.
    bool Load(const std::string& skinFile, std::string& error);
    QWidget* Control(int ctrlId) const;
    template <typename T>
    T* ControlAs(int ctrlId) const
    {
        return qobject_cast<T*>(Control(ctrlId));
    }
    const CDynBitmap& Background() const { return m_background; }
    const CDynRgn& WindowRegion() const { return m_region; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    std::map<int, QWidget*> m_controls;
    CDynBitmap m_background;
    CDynRgn m_region;
};

} // namespace larimo::test
