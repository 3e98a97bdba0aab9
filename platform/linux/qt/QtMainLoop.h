// MainLoop on Qt's event loop: timers are QTimers owned here, posted work is queued to the
// loop's thread (from any thread), uptime is the monotonic clock and now the wall clock.
//
// Thread: post() from any thread; everything else on the thread that owns the loop (the
// GUI thread). Realtime-safe: no.
#pragma once

#include <QObject>
#include <map>
#include <memory>

#include "platform/MainLoop.h"

class QTimer;

namespace brightmix {

class QtMainLoop final : public MainLoop {
public:
    QtMainLoop();
    ~QtMainLoop() override;
    QtMainLoop(const QtMainLoop&) = delete;
    QtMainLoop& operator=(const QtMainLoop&) = delete;

    void post(Task task) override;
    TimerID scheduleOnce(double delaySeconds, Task task) override;
    TimerID scheduleRepeating(double intervalSeconds, Task task) override;
    void cancel(TimerID timer) override;
    double uptime() const override;
    double now() const override;

    std::size_t activeTimers() const { return timers_.size(); }

private:
    TimerID add(double seconds, bool isRepeating, Task task);

    // Lives on the owning thread; posted work is queued to it.
    std::unique_ptr<QObject> context_;
    std::map<TimerID, QTimer*> timers_;
    TimerID nextTimer_ = 1;
};

} // namespace brightmix
