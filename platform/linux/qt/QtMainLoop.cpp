#include "platform/linux/qt/QtMainLoop.h"

#include <QMetaObject>
#include <QTimer>
#include <chrono>
#include <cmath>

namespace brightmix {

QtMainLoop::QtMainLoop() : context_(std::make_unique<QObject>()) {}

QtMainLoop::~QtMainLoop() {
    for (auto& [id, timer] : timers_)
        delete timer;
}

void QtMainLoop::post(Task task) {
    QMetaObject::invokeMethod(
        context_.get(), [task = std::move(task)] { task(); }, Qt::QueuedConnection);
}

MainLoop::TimerID QtMainLoop::add(double seconds, bool isRepeating, Task task) {
    const TimerID id = nextTimer_++;
    auto* timer = new QTimer(context_.get());
    timer->setTimerType(Qt::PreciseTimer);
    timer->setSingleShot(!isRepeating);
    const double milliseconds = std::isfinite(seconds) && seconds > 0 ? seconds * 1000 : 0;
    timer->setInterval(static_cast<int>(std::lround(std::fmin(milliseconds, 2.0e9))));
    QObject::connect(timer, &QTimer::timeout, context_.get(),
                     [this, id, isRepeating, task = std::move(task)] {
                         if (!isRepeating) {
                             // A one-shot timer is done before its task runs, so the task may
                             // schedule or cancel freely.
                             const auto found = timers_.find(id);
                             if (found != timers_.end()) {
                                 found->second->deleteLater();
                                 timers_.erase(found);
                             }
                         }
                         task();
                     });
    timers_.emplace(id, timer);
    timer->start();
    return id;
}

MainLoop::TimerID QtMainLoop::scheduleOnce(double delaySeconds, Task task) {
    return add(delaySeconds, false, std::move(task));
}

MainLoop::TimerID QtMainLoop::scheduleRepeating(double intervalSeconds, Task task) {
    // A zero interval would spin; one millisecond is the floor.
    return add(std::isfinite(intervalSeconds) && intervalSeconds > 0.001 ? intervalSeconds : 0.001,
               true, std::move(task));
}

void QtMainLoop::cancel(TimerID timer) {
    const auto found = timers_.find(timer);
    if (found == timers_.end()) return;
    found->second->stop();
    // The timer may be cancelling itself from its own task: delete it later.
    found->second->deleteLater();
    timers_.erase(found);
}

double QtMainLoop::uptime() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double QtMainLoop::now() const {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace brightmix
