// Work that runs on the main thread while a long remote command is waited for.
#ifndef FERRYGATE_COMMONS_ALARM_H
#define FERRYGATE_COMMONS_ALARM_H

namespace tavik {

// Handed to the transport with Ssh::setAlarm, which calls doAlarm() from its command loop on a
// clock of its own, where any work, remote commands included, is safe.
class Alarm {
  public:
    virtual ~Alarm();
    virtual void doAlarm() = 0;
};

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_ALARM_H
