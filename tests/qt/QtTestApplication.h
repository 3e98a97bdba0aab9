// The one QApplication of the Qt tests, on Qt's offscreen platform (no display needed), with
// the icon theme the application uses.
#pragma once

#include <QApplication>
#include <cstdlib>

#include "platform/linux/qt/QtViewRenderer.h"

namespace brightmix::testing {

inline QApplication& qtTestApplication() {
    static int argc = 1;
    static char name[] = "brightmix-tests";
    static char* argv[] = {name, nullptr};
    // Never destroyed: Qt's own statics may be gone by the time static destructors run.
    static QApplication* app = [] {
        setenv("QT_QPA_PLATFORM", "offscreen", 0);
        auto* created = new QApplication(argc, argv);
        QtViewRenderer::useInstalledIconTheme();
        return created;
    }();
    return *app;
}

} // namespace brightmix::testing
