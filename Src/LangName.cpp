/*
 * LangName.cpp - display names of user languages, by Windows language
 * identifier or by POSIX locale tag, for the environment record.
 */
#include <cstring>
#include "AlPlat.h"
#include "StrUtil.h"

namespace {

struct Lang {
    vek_u16 id;
    const char* tag;
    const char* name;
};

const Lang kLangs[] = {
    {0x0409, "en_US", "English (United States)"},   {0x0809, "en_GB", "English (United Kingdom)"},
    {0x0c09, "en_AU", "English (Australia)"},       {0x1009, "en_CA", "English (Canada)"},
    {0x0804, "zh_CN", "Chinese (PRC)"},             {0x0404, "zh_TW", "Chinese (Taiwan)"},
    {0x0c04, "zh_HK", "Chinese (Hong Kong S.A.R.)"}, {0x1004, "zh_SG", "Chinese (Singapore)"},
    {0x0411, "ja_JP", "Japanese"},                  {0x0412, "ko_KR", "Korean"},
    {0x0407, "de_DE", "German (Germany)"},          {0x040c, "fr_FR", "French (France)"},
    {0x0410, "it_IT", "Italian (Italy)"},           {0x0c0a, "es_ES", "Spanish (Spain)"},
    {0x080a, "es_MX", "Spanish (Mexico)"},          {0x0416, "pt_BR", "Portuguese (Brazil)"},
    {0x0816, "pt_PT", "Portuguese (Portugal)"},     {0x0419, "ru_RU", "Russian"},
    {0x0413, "nl_NL", "Dutch (Netherlands)"},       {0x041d, "sv_SE", "Swedish"},
    {0x0415, "pl_PL", "Polish"},                    {0x041f, "tr_TR", "Turkish"},
    {0x0401, "ar_SA", "Arabic (Saudi Arabia)"},     {0x040d, "he_IL", "Hebrew"},
    {0x041e, "th_TH", "Thai"},                      {0x042a, "vi_VN", "Vietnamese"},
    {0x0421, "id_ID", "Indonesian"},                {0x0408, "el_GR", "Greek"},
    {0x0405, "cs_CZ", "Czech"},                     {0x040e, "hu_HU", "Hungarian"},
    {0x040b, "fi_FI", "Finnish"},                   {0x0406, "da_DK", "Danish"},
    {0x0414, "nb_NO", "Norwegian (Bokmal)"},        {0x0422, "uk_UA", "Ukrainian"},
};

} // namespace

namespace plat {

const char* lang_name_by_id(vek_u16 id) {
    for (const Lang& l : kLangs) {
        if (l.id == id) {
            return l.name;
        }
    }
    return nullptr;
}

const char* lang_name_by_tag(const char* tag) {
    if (!tag || !*tag || !std::strcmp(tag, "C") || !std::strncmp(tag, "C.", 2) ||
        !std::strcmp(tag, "POSIX")) {
        return kLangs[0].name;  // the C locale speaks American English
    }
    for (const Lang& l : kLangs) {
        if (!vek_strincmp(tag, l.tag, 5) && (tag[5] == 0 || tag[5] == '.' || tag[5] == '@')) {
            return l.name;
        }
    }
    for (const Lang& l : kLangs) {
        if (!vek_strincmp(tag, l.tag, 2) && (tag[2] == 0 || tag[2] == '.' || tag[2] == '_')) {
            return l.name;  // same language, another region
        }
    }
    return nullptr;
}

} // namespace plat
