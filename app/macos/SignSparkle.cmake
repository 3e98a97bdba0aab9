# Signs an embedded Sparkle.framework from the inside out: its XPC services, its helper app and
# Autoupdate, then the framework itself. Run with -DFRAMEWORK=<path> -DIDENTITY=<identity>.
set(version "${FRAMEWORK}/Versions/B")
file(GLOB services "${version}/XPCServices/*.xpc")
set(parts ${services} "${version}/Autoupdate" "${version}/Updater.app")
foreach(part IN LISTS parts)
    if(EXISTS "${part}")
        execute_process(COMMAND codesign --force --options runtime --timestamp=none
            --sign "${IDENTITY}" "${part}" COMMAND_ERROR_IS_FATAL ANY)
    endif()
endforeach()
execute_process(COMMAND codesign --force --options runtime --timestamp=none
    --sign "${IDENTITY}" "${FRAMEWORK}" COMMAND_ERROR_IS_FATAL ANY)
