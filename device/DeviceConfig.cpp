// The connection configuration: parameter coupling, the XML text form, and core families.
#include "device/DeviceConfig.h"

#include <rapidxml/rapidxml.hpp>

#include <QByteArray>
#include <vector>

int SetConfigValue(DEV_CONFIG* p, int Param, I64 Value) {
  switch (Param) {
    case DCP_DEVICE_IDX:
      p->DeviceIdx = int(Value);
      break;
    case DCP_CORE_INDEX:
      p->CoreIndex = int(Value);
      break;
    case DCP_USB_SERIAL_NO:
      p->USBSerialNo = U32(Value);
      break;
    case DCP_USE_SERIAL_NO:
      p->UseSerialNo = int(Value);
      break;
    case DCP_HOST_IF:
      p->HostIF = int(Value);
      break;
    case DCP_TARGET_IF:
      p->TargetIF = int(Value);
      break;
    case DCP_SPEED:
      p->Speed = U32(Value);
      // The two special speeds are also flags of their own.
      p->UseMaxSpeed = p->Speed == kSpeedAuto ? 1 : 0;
      p->UseAdaptive = p->Speed == kSpeedAdaptive ? 1 : 0;
      break;
    case DCP_USE_MAX_SPEED:
      p->UseMaxSpeed = int(Value);
      if (Value > 0) {
        p->Speed = kSpeedAuto;
        p->UseAdaptive = 0;
      }
      break;
    case DCP_USE_ADAPTIVE:
      p->UseAdaptive = int(Value);
      if (Value > 0) {
        p->Speed = kSpeedAdaptive;
        p->UseMaxSpeed = 0;
      }
      break;
    case DCP_ENDIAN:
      p->Endian = int(Value);
      break;
    case DCP_DR_PRE:
      p->DRPre = int(Value);
      break;
    case DCP_IR_PRE:
      p->IRPre = int(Value);
      break;
    case DCP_MULTIPLE_TARGETS:
      p->MultipleTargets = int(Value);
      break;
    case DCP_STEPPING_MODE:
      p->SteppingMode = int(Value);
      break;
    case DCP_RUN_TO_ADDR:
      p->RunToAddr = U32(Value);
      break;
    default:
      return -1;
  }
  return 0;
}

int SetConfigText(DEV_CONFIG* p, int Param, const QString& sValue) {
  int Limit = (Param == DCP_HOST_NAME || Param == DCP_DEVICE_NAME) ? 255 : 2047;
  if (sValue.toUtf8().size() > Limit) {
    return -1;
  }
  switch (Param) {
    case DCP_HOST_NAME:
      p->sHostName = sValue;
      break;
    case DCP_DEVICE_NAME:
      p->sDeviceName = sValue;
      break;
    case DCP_SCRIPT_FILE:
      p->sScriptFile = sValue;
      break;
    case DCP_LOG_FILE:
      p->sLogFile = sValue;
      break;
    default:
      return -1;
  }
  return 0;
}

QString SpeedToText(U32 Hz) {
  if (Hz == kSpeedAuto) {
    return "auto";
  }
  if (Hz == kSpeedAdaptive) {
    return "adaptive";
  }
  return QString("%1 kHz").arg(Hz / 1000);
}

static QString _Hex(I64 Value) {
  // Negative numbers are written as an empty attribute.
  return Value < 0 ? QString() : "0x" + QString::number(U64(Value), 16).toUpper();
}

static QString _Escape(const QString& s) {
  QString r = s;
  r.replace('&', "&amp;").replace('<', "&lt;").replace('>', "&gt;");
  return r;
}

static QString _EscapeAttribute(const QString& s) {
  return _Escape(s).replace('"', "&quot;");
}

QString ConfigToXml(const DEV_CONFIG& c) {
  QString sDevice = c.sDeviceName.contains(' ') ? "\"" + c.sDeviceName + "\"" : c.sDeviceName;
  return QString(
             "<TarvikSettings>"
             "<HostInterface ConnectMode=\"%1\" USBSerialNo=\"%2\" HostName=\"%3\" UseSerialNo=\"%4\"/>"
             "<TargetDevice CoreIndex=\"%5\" Endian=\"%6\"><DeviceName>%7</DeviceName></TargetDevice>"
             "<TargetInterface TargetIF=\"%8\" DRPre=\"%9\" IRPre=\"%10\" MultipleTargets=\"%11\" "
             "Speed=\"%12\" "
             "UseAdaptive=\"%13\" UseMaxSpeed=\"%14\"/>"
             "</TarvikSettings>")
      .arg(_Hex(c.HostIF), _Hex(c.USBSerialNo), _EscapeAttribute(c.sHostName), _Hex(c.UseSerialNo),
           _Hex(c.CoreIndex), _Hex(c.Endian), _Escape(sDevice), _Hex(c.TargetIF), _Hex(c.DRPre))
      .arg(_Hex(c.IRPre), _Hex(c.MultipleTargets), SpeedToText(c.Speed), _Hex(c.UseAdaptive),
           _Hex(c.UseMaxSpeed));
}

namespace {

// Finds an attribute on any child of the root; null when absent.
rapidxml::xml_attribute<>* _FindAttribute(rapidxml::xml_node<>* pRoot, const char* sName) {
  for (rapidxml::xml_node<>* p = pRoot->first_node(); p; p = p->next_sibling()) {
    if (rapidxml::xml_attribute<>* a = p->first_attribute(sName)) {
      return a;
    }
  }
  return nullptr;
}

bool _ParseNumber(const char* s, I64* pValue) {
  QString sText = QString::fromUtf8(s).trimmed();
  if (sText.isEmpty()) {
    *pValue = -1;  // an empty attribute stands for a negative number
    return true;
  }
  bool Ok = false;
  I64 v = sText.toLongLong(&Ok, 0);
  *pValue = v;
  return Ok;
}

bool _ParseSpeed(const char* s, I64* pValue) {
  QString sText = QString::fromUtf8(s).trimmed().toLower();
  if (sText == "auto") {
    *pValue = kSpeedAuto;
    return true;
  }
  if (sText == "adaptive") {
    *pValue = kSpeedAdaptive;
    return true;
  }
  double Factor = 1000;  // a bare number is kHz
  if (sText.endsWith("mhz")) {
    Factor = 1e6;
    sText.chop(3);
  } else if (sText.endsWith("khz")) {
    sText.chop(3);
  } else if (sText.endsWith("hz")) {
    Factor = 1;
    sText.chop(2);
  }
  bool Ok = false;
  double v = sText.trimmed().toDouble(&Ok);
  if (!Ok || v < 0 || v * Factor > 4e9) {
    return false;
  }
  *pValue = I64(v * Factor + 0.5);
  return true;
}

}  // namespace

int ConfigFromXml(const QString& sXml, DEV_CONFIG* pConfig, QString* psError) {
  QByteArray Text = sXml.toUtf8();
  std::vector<char> Buffer(Text.begin(), Text.end());
  Buffer.push_back(0);
  rapidxml::xml_document<> Doc;
  try {
    Doc.parse<0>(Buffer.data());
  } catch (const rapidxml::parse_error& e) {
    if (psError) {
      *psError = QString("settings text is not XML: %1 at offset %2")
                     .arg(e.what())
                     .arg(e.where<char>() - Buffer.data());
    }
    return -1;
  }
  rapidxml::xml_node<>* pRoot = Doc.first_node("TarvikSettings");
  if (pRoot == nullptr) {
    if (psError) {
      *psError = "settings text has no TarvikSettings element";
    }
    return -1;
  }
  DEV_CONFIG c = *pConfig;
  struct STEP {
    const char* sAttribute;
    int Param;
  } const aStep[] = {
      {"ConnectMode", DCP_HOST_IF},
      {"TargetIF", DCP_TARGET_IF},
      {"USBSerialNo", DCP_USB_SERIAL_NO},
      {"UseSerialNo", DCP_USE_SERIAL_NO},
      {"CoreIndex", DCP_CORE_INDEX},
      {"Endian", DCP_ENDIAN},
      {"DRPre", DCP_DR_PRE},
      {"IRPre", DCP_IR_PRE},
      {"MultipleTargets", DCP_MULTIPLE_TARGETS},
      {"Speed", DCP_SPEED},
      {"UseAdaptive", DCP_USE_ADAPTIVE},
      {"UseMaxSpeed", DCP_USE_MAX_SPEED},
  };
  for (const STEP& Step : aStep) {
    rapidxml::xml_attribute<>* a = _FindAttribute(pRoot, Step.sAttribute);
    if (a == nullptr) {
      continue;
    }
    I64 Value = 0;
    bool Ok = Step.Param == DCP_SPEED ? _ParseSpeed(a->value(), &Value) : _ParseNumber(a->value(), &Value);
    if (!Ok) {
      if (psError) {
        *psError = QString("invalid value \"%1\" of %2").arg(QString::fromUtf8(a->value()), Step.sAttribute);
      }
      return -1;
    }
    SetConfigValue(&c, Step.Param, Value);
  }
  if (rapidxml::xml_attribute<>* a = _FindAttribute(pRoot, "HostName")) {
    c.sHostName = QString::fromUtf8(a->value());
  }
  rapidxml::xml_node<>* pDevice = pRoot->first_node("TargetDevice");
  if (pDevice && pDevice->first_node("DeviceName")) {
    QString sName = QString::fromUtf8(pDevice->first_node("DeviceName")->value()).trimmed();
    if (sName.size() >= 2 && sName.startsWith('"') && sName.endsWith('"')) {
      sName = sName.mid(1, sName.size() - 2);
    }
    if (SetConfigText(&c, DCP_DEVICE_NAME, sName) < 0) {
      if (psError) {
        *psError = "device name longer than 255 bytes";
      }
      return -1;
    }
  }
  *pConfig = c;
  return 0;
}

int CoreIdToFamily(U32 Id) {
  switch (Id) {
    case 0x010000FF:
      return DF_CORTEX_M1;
    case 0x030000FF:
    case 0x03000010:
    case 0x03000011:
    case 0x03000020:
    case 0x03000021:
      return DF_CORTEX_M3;
    case 0x060000FF:
    case 0x060100FF:
      return DF_CORTEX_M0;
    case 0x0700003F:
    case 0x0700004F:
    case 0x070000FF:
    case 0x0700013F:
    case 0x0700014F:
    case 0x070001FF:
    case 0x07FFFFFF:
      return DF_ARM7;
    case 0x080000FF:
    case 0x080800FF:
    case 0x080900FF:
    case 0x080A00FF:
    case 0x080B00FF:
    case 0x080C00FF:
      return DF_CORTEX_A8;
    case 0x090001FF:
    case 0x092000FF:
    case 0x092200FF:
    case 0x092601FF:
    case 0x094601FF:
    case 0x096601FF:
    case 0x096801FF:
    case 0x09FFFFFF:
      return DF_ARM9;
    case 0x0B3602FF:
    case 0x0B3603FF:
    case 0x0B3606FF:
    case 0x0B3607FF:
    case 0x0B36FFFF:
    case 0x0B56FFFF:
    case 0x0B7602FF:
    case 0x0B7603FF:
    case 0x0B7606FF:
    case 0x0B7607FF:
    case 0x0B76FFFF:
    case 0x0BFFFFFF:
      return DF_ARM11;
    case 0x0C0000FF:
    case 0x0C0100FF:
    case 0x0D10FFFF:
    case 0x0D20FFFF:
    case 0x0DFFFFFF:
      return DF_CORTEX_R4;
    case 0x0E0000FF:
    case 0x0E0100FF:
    case 0x0E0200FF:
      return DF_CORTEX_M4;
    case 0x0F0000FF:
      return DF_CORTEX_A5;
    default:
      break;
  }
  if (Id >= 0x0D00FFFF && Id <= 0x0D05FFFF && (Id & 0xFFFF) == 0xFFFF) {
    return DF_CORTEX_R4;
  }
  return DF_UNKNOWN;
}

bool IsCortexMFamily(int Family) {
  return Family == DF_CORTEX_M1 || Family == DF_CORTEX_M3 || Family == DF_CORTEX_M0 || Family == DF_CORTEX_M4;
}

bool IsARMFamily(int Family) {
  return Family == DF_ARM7 || Family == DF_CORTEX_A8 || Family == DF_ARM9 || Family == DF_ARM10 ||
         Family == DF_ARM11 || Family == DF_CORTEX_R4 || Family == DF_CORTEX_A5;
}

const char* CoreIdToArchName(U32 Id) {
  switch (Id) {
    case 0x010000FF:
    case 0x060000FF:
      return "ARMv6M";
    case 0x03000010:
    case 0x03000011:
    case 0x03000020:
    case 0x03000021:
    case 0x030000FF:
    case 0x0E0000FF:
    case 0x0E0100FF:
      return "ARMv7M";
    case 0x060100FF:
    case 0x0E0200FF:
      return "ARMv8M";
    default:
      return "";
  }
}
