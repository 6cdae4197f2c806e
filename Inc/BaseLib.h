/*
 * BaseLib.h - the umbrella header: includes every public header of the
 * library.
 */
#ifndef VEK_BASELIB_H
#define VEK_BASELIB_H

#include "VekType.h"
#include "AlOs.h"
#include "VekVos.h"
#include "VekVosx.h"
#include "VekCall.h"
#include "VekTrc.h"
#include "MemUtil.h"
#include "BaseItf.h"
#include "TinyStr.h"
#include "StrUtil.h"
#include "VekUni.h"
#include "VekStr.h"
#include "VekWcs.h"
#include "VekData.h"
#include "VekStrm.h"
#include "VekList.h"
#include "IniFile.h"
#include "VekEvt.h"

#endif /* VEK_BASELIB_H */
