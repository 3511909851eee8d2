// Results of the detections that no message can start: made up, and sent the way of real ones.
#pragma once

namespace zelctl {

// Registers the library's receivers with the network tools and lets those report one result each of
// a port, a firewall, a site and an optimal-site detection. Each becomes a notification.
void SendSampleReports();

}  // namespace zelctl
