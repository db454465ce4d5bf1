#include "cli/CommandLine.h"
#include "doctor/Doctor.h"
#include "doctor/DoctorCheck.h"
#include "grab/Grab.h"
#include "inspect/Inspect.h"
#include "klv/KlvCommand.h"
#include "run/RecordCommand.h"
#include "run/RunCommand.h"
#include "run/ServeHttp.h"
#include "run/ServeRtsp.h"

int main(int argc, char** argv) {
  station::Inspect inspect;
  station::Doctor doctor;
  station::DoctorCheck doctorCheck;
  station::RecordCommand record;
  station::Grab grab;
  station::KlvCommand klv;
  station::ServeRtsp serveRtsp;
  station::ServeHttp serveHttp;
  station::RunCommand run(argc, argv);
  return station::runCommandLine(
      argc, argv,
      {&inspect, &doctor, &doctorCheck, &record, &grab, &klv, &serveRtsp, &serveHttp, &run});
}
