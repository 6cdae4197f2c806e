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
#include "VekQue.h"
#include "ProtBuf.h"
#include "IdUtil.h"
#include "VekVect.h"
#include "VekStack.h"
#include "IniFile.h"
#include "VekMd5.h"
#include "VekTime.h"
#include "CsvUtil.h"
#include "VekEnc.h"
#include "MimeHdr.h"
#include "GsmUtil.h"
#include "VekEvt.h"
/* binary and network helpers, identifier tables, interface collections */
#include "MiscUtil.h"
#include "StrId.h"
#include "ItfUtil.h"
/* waits on the system's descriptors and handles, per-thread event dispatch */
#include "VekErp.h"
#include "VekIoWait.h"
/* trace, monitors, loadable libraries, downloads */
#include "VekCm.h"
#include "VekHttp.h"
#include "VekMon.h"
/* timers and the task server */
#include "VekTimer.h"
#include "TaskSvr.h"
/* configuration, XML, language resources, UTF-8 OS calls */
#include "OsUtf8.h"
#include "XmlDec.h"
#include "CfgIni.h"
#include "LangCat.h"

/* Transports and devices. */
#include "VekSock.h"
#include "BufStrm.h"
#include "VekDev.h"

/* Processes talking to each other: endpoints, messages, calls. */
#include "VekPipe.h"
/* The modem channel and SMS. */
#include "VekLex.h"
#include "AtChan.h"
#include "SmsPdu.h"

#endif /* VEK_BASELIB_H */
