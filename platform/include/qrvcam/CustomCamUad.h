// Customer report-thread registry of the camera platform.
#pragma once

class CustomCamUad {
public:
    static CustomCamUad* getInstance();

    // The boolean property "debug.qrvcam.uad.enable" (default false), read on every call.
    bool getUadEnable() const;

    // Registers a thread with the customer's report facility. On the host it logs
    // "setReportThread(%s, %d, %d)" at info priority, tag "qrvcam-uad".
    void setReportThread(char const* name, int type, int tid);

private:
    CustomCamUad() = default;
};
