// What the host of this program saw, for its checks.
#pragma once

#include <vector>

namespace ownhost {

int TasksRun();                      // tasks that the host's pool ran
int Resumes();                       // calls of HostResumeCaller
std::vector<unsigned> Placements();  // CPUs asked for, in the order asked

}  // namespace ownhost
