#include "state/control.h"

EmpControl_t empControl;
EmpEvDatabase_t eventEntryDatabase[EMP_INDEX_ENTRIES + 1];
U8_t eventEntryWorkSpace[EMP_WORK_SPACE_PHYSICAL];
S64_t empLogFilePosition;
U8_t nullEmpEnclosureId[EMP_ID_TEXT_SIZE];

const char* ProgName = "";
int shmKey;
const MPU_PARAMS_t* oMpuParams;
