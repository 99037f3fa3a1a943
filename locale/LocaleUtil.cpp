#include "locale/LocaleUtil.h"

#include <stdexcept>
#include <string_view>

namespace lexkit_private {

namespace {

// Only the name column is read. The other columns carry Windows' values for each locale; the full
// name is the name with the script in the rows of script variants.
constexpr std::array<LocaleRow, kLocaleRowCount> kLocaleTable = {{
    {0x00000000, "", "", ""},                      // 0, the first mark
    {0x00000436, "AFK", "af_za", "af_za"},         // 1
    {0x0000045E, "AMH", "am_et", "am_et"},         // 2
    {0x00000401, "ARA", "ar_sa", "ar_sa"},         // 3
    {0x00003801, "ARU", "ar_ae", "ar_ae"},         // 4
    {0x00003C01, "ARH", "ar_bh", "ar_bh"},         // 5
    {0x00001401, "ARG", "ar_dz", "ar_dz"},         // 6
    {0x00000C01, "ARE", "ar_eg", "ar_eg"},         // 7
    {0x00000801, "ARI", "ar_iq", "ar_iq"},         // 8
    {0x00002C01, "ARJ", "ar_jo", "ar_jo"},         // 9
    {0x00003401, "ARK", "ar_kw", "ar_kw"},         // 10
    {0x00003001, "ARB", "ar_lb", "ar_lb"},         // 11
    {0x00001001, "ARL", "ar_ly", "ar_ly"},         // 12
    {0x00001801, "ARM", "ar_ma", "ar_ma"},         // 13
    {0x00002001, "ARO", "ar_om", "ar_om"},         // 14
    {0x00004001, "ARQ", "ar_qa", "ar_qa"},         // 15
    {0x00002801, "ARS", "ar_sy", "ar_sy"},         // 16
    {0x00001C01, "ART", "ar_tn", "ar_tn"},         // 17
    {0x00002401, "ARY", "ar_ye", "ar_ye"},         // 18
    {0x0000047A, "MPD", "arn_cl", "arn_cl"},       // 19
    {0x0000044D, "ASM", "as_in", "as_in"},         // 20
    {0x0000042C, "AZE", "az_az", "az_latn_az"},    // 21
    {0x0000082C, "AZC", "az_az", "az_cyrl_az"},    // 22
    {0x0000046D, "BAS", "ba_ru", "ba_ru"},         // 23
    {0x00000423, "BEL", "be_by", "be_by"},         // 24
    {0x00000402, "BGR", "bg_bg", "bg_bg"},         // 25
    {0x00000445, "BNG", "bn_in", "bn_in"},         // 26
    {0x00000845, "BNB", "bn_bd", "bn_bd"},         // 27
    {0x00000451, "BOB", "bo_cn", "bo_cn"},         // 28
    {0x0000047E, "BRE", "br_fr", "br_fr"},         // 29
    {0x0000141A, "BSB", "bs_ba", "bs_latn_ba"},    // 30
    {0x0000201A, "BSC", "bs_ba", "bs_cyrl_ba"},    // 31
    {0x00000403, "CAT", "ca_es", "ca_es"},         // 32
    {0x00000483, "COS", "co_fr", "co_fr"},         // 33
    {0x00000405, "CSY", "cs_cz", "cs_cz"},         // 34
    {0x00000452, "CYM", "cy_gb", "cy_gb"},         // 35
    {0x00000406, "DAN", "da_dk", "da_dk"},         // 36
    {0x00000C07, "DEA", "de_at", "de_at"},         // 37
    {0x00000807, "DES", "de_ch", "de_ch"},         // 38
    {0x00000407, "DEU", "de_de", "de_de"},         // 39
    {0x00001407, "DEC", "de_li", "de_li"},         // 40
    {0x00001007, "DEL", "de_lu", "de_lu"},         // 41
    {0x0000082E, "DSB", "dsb_de", "dsb_de"},       // 42
    {0x00000465, "DIV", "dv_mv", "dv_mv"},         // 43
    {0x00000408, "ELL", "el_gr", "el_gr"},         // 44
    {0x00000C09, "ENA", "en_au", "en_au"},         // 45
    {0x00002809, "ENL", "en_bz", "en_bz"},         // 46
    {0x00001009, "ENC", "en_ca", "en_ca"},         // 47
    {0x00002409, "ENB", "en_cb", "en_cb"},         // 48
    {0x00000809, "ENG", "en_gb", "en_gb"},         // 49
    {0x00001809, "ENI", "en_ie", "en_ie"},         // 50
    {0x00004009, "ENN", "en_in", "en_in"},         // 51
    {0x00002009, "ENJ", "en_jm", "en_jm"},         // 52
    {0x00004409, "ENM", "en_my", "en_my"},         // 53
    {0x00001409, "ENZ", "en_nz", "en_nz"},         // 54
    {0x00003409, "ENP", "en_ph", "en_ph"},         // 55
    {0x00004809, "ENE", "en_sg", "en_sg"},         // 56
    {0x00002C09, "ENT", "en_tt", "en_tt"},         // 57
    {0x00000409, "ENU", "en_us", "en_us"},         // 58
    {0x00001C09, "ENS", "en_za", "en_za"},         // 59
    {0x00003009, "ENW", "en_zw", "en_zw"},         // 60
    {0x00002C0A, "ESS", "es_ar", "es_ar"},         // 61
    {0x0000400A, "ESB", "es_bo", "es_bo"},         // 62
    {0x0000340A, "ESL", "es_cl", "es_cl"},         // 63
    {0x0000240A, "ESO", "es_co", "es_co"},         // 64
    {0x0000140A, "ESC", "es_cr", "es_cr"},         // 65
    {0x00001C0A, "ESD", "es_do", "es_do"},         // 66
    {0x0000300A, "ESF", "es_ec", "es_ec"},         // 67
    {0x0000040A, "ESP", "es_es", "es_es"},         // 68
    {0x00000C0A, "ESN", "es_es", "es_es"},         // 69
    {0x0000100A, "ESG", "es_gt", "es_gt"},         // 70
    {0x0000480A, "ESH", "es_hn", "es_hn"},         // 71
    {0x0000080A, "ESM", "es_mx", "es_mx"},         // 72
    {0x00004C0A, "ESI", "es_ni", "es_ni"},         // 73
    {0x0000180A, "ESA", "es_pa", "es_pa"},         // 74
    {0x0000280A, "ESR", "es_pe", "es_pe"},         // 75
    {0x0000500A, "ESU", "es_pr", "es_pr"},         // 76
    {0x00003C0A, "ESZ", "es_py", "es_py"},         // 77
    {0x0000440A, "ESE", "es_sv", "es_sv"},         // 78
    {0x0000540A, "EST", "es_us", "es_us"},         // 79
    {0x0000380A, "ESY", "es_uy", "es_uy"},         // 80
    {0x0000200A, "ESV", "es_ve", "es_ve"},         // 81
    {0x00000425, "ETI", "et_ee", "et_ee"},         // 82
    {0x0000042D, "EUQ", "eu_es", "eu_es"},         // 83
    {0x00000429, "FAR", "fa_ir", "fa_ir"},         // 84
    {0x0000040B, "FIN", "fi_fi", "fi_fi"},         // 85
    {0x00000464, "FPO", "fil_ph", "fil_ph"},       // 86
    {0x00000438, "FOS", "fo_fo", "fo_fo"},         // 87
    {0x0000080C, "FRB", "fr_be", "fr_be"},         // 88
    {0x00000C0C, "FRC", "fr_ca", "fr_ca"},         // 89
    {0x0000100C, "FRS", "fr_ch", "fr_ch"},         // 90
    {0x0000040C, "FRA", "fr_fr", "fr_fr"},         // 91
    {0x0000140C, "FRL", "fr_lu", "fr_lu"},         // 92
    {0x0000180C, "FRM", "fr_mc", "fr_mc"},         // 93
    {0x00000462, "FYN", "fy_nl", "fy_nl"},         // 94
    {0x0000083C, "IRE", "ga_ie", "ga_ie"},         // 95
    {0x00000456, "GLC", "gl_es", "gl_es"},         // 96
    {0x00000484, "GSW", "gsw_fr", "gsw_fr"},       // 97
    {0x00000447, "GUJ", "gu_in", "gu_in"},         // 98
    {0x00000468, "HAU", "ha_ng", "ha_latn_ng"},    // 99
    {0x0000040D, "HEB", "he_il", "he_il"},         // 100
    {0x00000439, "HIN", "hi_in", "hi_in"},         // 101
    {0x0000101A, "HRB", "hr_ba", "hr_latn_ba"},    // 102
    {0x0000041A, "HRV", "hr_hr", "hr_hr"},         // 103
    {0x0000040E, "HUN", "hu_hu", "hu_hu"},         // 104
    {0x0000042B, "HYE", "hy_am", "hy_am"},         // 105
    {0x00000421, "IND", "id_id", "id_id"},         // 106
    {0x00000470, "IBO", "ig_ng", "ig_ng"},         // 107
    {0x00000478, "III", "ii_cn", "ii_cn"},         // 108
    {0x0000040F, "ISL", "is_is", "is_is"},         // 109
    {0x00000810, "ITS", "it_ch", "it_ch"},         // 110
    {0x00000410, "ITA", "it_it", "it_it"},         // 111
    {0x0000045D, "IUS", "iu_ca", "iu_ca"},         // 112
    {0x0000085D, "IUK", "iu_ca", "iu_latn_ca"},    // 113
    {0x00000411, "JPN", "ja_jp", "ja_jp"},         // 114
    {0x00000437, "KAT", "ka_ge", "ka_ge"},         // 115
    {0x0000043F, "KKZ", "kk_kz", "kk_kz"},         // 116
    {0x0000046F, "KAL", "kl_gl", "kl_gl"},         // 117
    {0x00000453, "KHM", "km_kh", "km_kh"},         // 118
    {0x0000044B, "KDI", "kn_in", "kn_in"},         // 119
    {0x00000412, "KOR", "ko_kr", "ko_kr"},         // 120
    {0x00000457, "KNK", "kok_in", "kok_in"},       // 121
    {0x00000440, "KYR", "ky_kg", "ky_kg"},         // 122
    {0x0000046E, "LBX", "lb_lu", "lb_lu"},         // 123
    {0x00000454, "LAO", "lo_la", "lo_la"},         // 124
    {0x00000427, "LTH", "lt_lt", "lt_lt"},         // 125
    {0x00000426, "LVI", "lv_lv", "lv_lv"},         // 126
    {0x00000481, "MRI", "mi_nz", "mi_nz"},         // 127
    {0x0000042F, "MKI", "mk_mk", "mk_mk"},         // 128
    {0x0000044C, "MYM", "ml_in", "ml_in"},         // 129
    {0x00000850, "MNG", "mn_cn", "mn_cn"},         // 130
    {0x00000450, "MON", "mn_mn", "mn_cyrl_mn"},    // 131
    {0x0000047C, "MWK", "moh_ca", "moh_ca"},       // 132
    {0x0000044E, "MAR", "mr_in", "mr_in"},         // 133
    {0x0000083E, "MSB", "ms_bn", "ms_bn"},         // 134
    {0x0000043E, "MSL", "ms_my", "ms_my"},         // 135
    {0x0000043A, "MLT", "mt_mt", "mt_mt"},         // 136
    {0x00000414, "NOR", "nb_no", "nb_no"},         // 137
    {0x00000814, "NON", "nn_no", "nn_no"},         // 138
    {0x00000461, "NEP", "ne_np", "ne_np"},         // 139
    {0x00000813, "NLB", "nl_be", "nl_be"},         // 140
    {0x00000413, "NLD", "nl_nl", "nl_nl"},         // 141
    {0x0000046C, "NSO", "nso_za", "nso_za"},       // 142
    {0x00000482, "OCI", "oc_fr", "oc_fr"},         // 143
    {0x00000448, "ORI", "or_in", "or_in"},         // 144
    {0x00000446, "PAN", "pa_in", "pa_in"},         // 145
    {0x00000415, "PLK", "pl_pl", "pl_pl"},         // 146
    {0x0000048C, "PRS", "prs_af", "prs_af"},       // 147
    {0x00000463, "PAS", "ps_af", "ps_af"},         // 148
    {0x00000416, "PTB", "pt_br", "pt_br"},         // 149
    {0x00000816, "PTG", "pt_pt", "pt_pt"},         // 150
    {0x00000486, "QUT", "qut_gt", "qut_gt"},       // 151
    {0x0000046B, "QUB", "quz_bo", "quz_bo"},       // 152
    {0x0000086B, "QUE", "quz_ec", "quz_ec"},       // 153
    {0x00000C6B, "QUP", "quz_pe", "quz_pe"},       // 154
    {0x00000417, "RMC", "rm_ch", "rm_ch"},         // 155
    {0x00000418, "ROM", "ro_ro", "ro_ro"},         // 156
    {0x00000419, "RUS", "ru_ru", "ru_ru"},         // 157
    {0x00000487, "KIN", "rw_rw", "rw_rw"},         // 158
    {0x0000044F, "SAN", "sa_in", "sa_in"},         // 159
    {0x00000485, "SAH", "sah_ru", "sah_ru"},       // 160
    {0x00000C3B, "SMG", "se_fi", "se_fi"},         // 161
    {0x0000203B, "SMS", "sms_fi", "sms_fi"},       // 162
    {0x0000243B, "SMN", "smn_fi", "smn_fi"},       // 163
    {0x0000043B, "SME", "se_no", "se_no"},         // 164
    {0x0000103B, "SMJ", "smj_no", "smj_no"},       // 165
    {0x0000183B, "SMA", "sma_no", "sma_no"},       // 166
    {0x0000083B, "SMF", "se_se", "se_se"},         // 167
    {0x0000143B, "SMK", "smj_se", "smj_se"},       // 168
    {0x00001C3B, "SMB", "sma_se", "sma_se"},       // 169
    {0x0000045B, "SIN", "si_lk", "si_lk"},         // 170
    {0x0000041B, "SKY", "sk_sk", "sk_sk"},         // 171
    {0x00000424, "SLV", "sl_si", "sl_si"},         // 172
    {0x0000041C, "SQI", "sq_al", "sq_al"},         // 173
    {0x0000181A, "SRS", "sr_ba", "sr_latn_ba"},    // 174
    {0x00001C1A, "SRN", "sr_ba", "sr_cyrl_ba"},    // 175
    {0x0000081A, "SRL", "sr_cs", "sr_latn_cs"},    // 176
    {0x00000C1A, "SRB", "sr_cs", "sr_cyrl_cs"},    // 177
    {0x0000081D, "SVF", "sv_fi", "sv_fi"},         // 178
    {0x0000041D, "SVE", "sv_se", "sv_se"},         // 179
    {0x00000441, "SWK", "sw_ke", "sw_ke"},         // 180
    {0x0000045A, "SYR", "syr_sy", "syr_sy"},       // 181
    {0x00000449, "TAM", "ta_in", "ta_in"},         // 182
    {0x0000044A, "TEL", "te_in", "te_in"},         // 183
    {0x00000428, "TAJ", "tg_tj", "tg_cyrl_tj"},    // 184
    {0x0000041E, "THA", "th_th", "th_th"},         // 185
    {0x00000442, "TUK", "tk_tm", "tk_tm"},         // 186
    {0x00000432, "TSN", "tn_za", "tn_za"},         // 187
    {0x0000041F, "TRK", "tr_tr", "tr_tr"},         // 188
    {0x00000444, "TTT", "tt_ru", "tt_ru"},         // 189
    {0x0000085F, "TZA", "tzm_dz", "tzm_latn_dz"},  // 190
    {0x00000480, "UIG", "ug_cn", "ug_cn"},         // 191
    {0x00000422, "UKR", "uk_ua", "uk_ua"},         // 192
    {0x00000420, "URD", "ur_pk", "ur_pk"},         // 193
    {0x00000443, "UZB", "uz_uz", "uz_latn_uz"},    // 194
    {0x00000843, "UZB", "uz_uz", "uz_cyrl_uz"},    // 195
    {0x0000042A, "VIT", "vi_vn", "vi_vn"},         // 196
    {0x0000042E, "SBP", "wen_de", "wen_de"},       // 197
    {0x00000488, "WOL", "wo_sn", "wo_sn"},         // 198
    {0x00000434, "XHO", "xh_za", "xh_za"},         // 199
    {0x0000046A, "YOR", "yo_ng", "yo_ng"},         // 200
    {0x00000804, "CHS", "zh_cn", "zh_hans_cn"},    // 201
    {0x00000C04, "ZHH", "zh_hk", "zh_hant_hk"},    // 202
    {0x00001404, "ZHM", "zh_mo", "zh_hant_mo"},    // 203
    {0x00001004, "ZHI", "zh_sg", "zh_hans_sg"},    // 204
    {0x00000404, "CHT", "zh_tw", "zh_hant_tw"},    // 205
    {0x00000435, "ZUL", "zu_za", "zu_za"},         // 206
    {0xFFFFFFFF, "", "", ""},                      // 207, the last mark
}};

// The C locale's tolower, fixed: the process's locale must not decide which row a name finds.
char LowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool EqualIgnoringAsciiCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (LowerAscii(a[i]) != LowerAscii(b[i])) return false;
    }
    return true;
}

}  // namespace

const std::array<LocaleRow, kLocaleRowCount>& LocaleTable() { return kLocaleTable; }

uint32_t LocaleIndexFromName(const std::string& name) {
    // Row 207's name is empty like row 0's, so the empty name stops at row 0 and the end mark is
    // never a result; it is searched all the same, as a table row.
    for (size_t i = 0; i < kLocaleTable.size(); ++i) {
        if (EqualIgnoringAsciiCase(name, kLocaleTable[i].name)) return static_cast<uint32_t>(i);
    }
    throw std::runtime_error("Invalid locale string in locale/LocaleUtil");
}

}  // namespace lexkit_private
