// The scripted system services an AppModel needs beside its hardware, main loop, settings
// and file writer, gathered so that every test and benchmark builds a model the same way.
#pragma once

#include "Brightmix/AppModel.h"
#include "platform/sim/ScriptedSystem.h"
#include "platform/sim/ScriptedWorkspace.h"

namespace brightmix::testing {

struct ScriptedServices {
    ScriptedWorkspace workspace;
    ScriptedEventTap tap;
    ScriptedPermissions permissions;
    ScriptedLoginItem loginItem;
    ScriptedFolderAccess folders;
    RecordedHudPanel hud;

    AppServices services(AudioHardware& hardware, MainLoop& loop, Defaults& defaults,
                         AudioFileWriter& writer) {
        return {hardware,    loop,      defaults, writer, workspace, tap,
                permissions, loginItem, folders,  hud,    hud};
    }
};

} // namespace brightmix::testing
