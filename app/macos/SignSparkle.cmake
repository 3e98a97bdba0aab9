# Signs an embedded Sparkle.framework from the inside out: its XPC services, its helper app and
# Autoupdate, then the framework itself. Run with -DFRAMEWORK=<path> -DIDENTITY=<identity>
# -DHARDENED=ON|OFF. The hardened runtime goes with a real identity only: an ad-hoc signature has
# no Team ID, and library validation would then refuse to load the framework into the app.
set(version "${FRAMEWORK}/Versions/B")
set(runtime_options "")
if(HARDENED)
    set(runtime_options --options runtime)
endif()
file(GLOB services "${version}/XPCServices/*.xpc")
set(parts ${services} "${version}/Autoupdate" "${version}/Updater.app")
foreach(part IN LISTS parts)
    if(EXISTS "${part}")
        execute_process(COMMAND codesign --force ${runtime_options} --timestamp=none
            --sign "${IDENTITY}" "${part}" COMMAND_ERROR_IS_FATAL ANY)
    endif()
endforeach()
execute_process(COMMAND codesign --force ${runtime_options} --timestamp=none
    --sign "${IDENTITY}" "${FRAMEWORK}" COMMAND_ERROR_IS_FATAL ANY)
