// Work that a long remote command lets run on the main thread between two of its waits.
#ifndef FERRYGATE_COMMONS_ALARM_H
#define FERRYGATE_COMMONS_ALARM_H

namespace tavik {

// A signal handler may only hand an Alarm over (Ssh::setAlarm); the transport calls doAlarm()
// later from its command loop, where any work, remote commands included, is safe.
class Alarm {
  public:
    virtual ~Alarm();
    virtual void doAlarm() = 0;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_ALARM_H
