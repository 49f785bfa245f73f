// Interface texts in English and Chinese, the labels of the enumerations the
// API answers with numbers, and the formatting of dates and sizes.
//
//   setLanguage('zh'); t('nav.tasks') === '任务'
//   t('tasks.range', {from: 1, to: 10, total: 26}) === '第 1–10 条，共 26 条'
//
// The chosen language is kept in the browser's localStorage (the one thing
// the console keeps there), so that a reload keeps it.

const TEXTS = {
  en: {
    brand: 'NOX console',
    skip: 'Skip to content',
    'nav.tasks': 'Tasks',
    'nav.alarms': 'Alarms',
    'nav.certificates': 'Certificates',
    'nav.storage': 'Storage',
    signOut: 'Sign out',
    signedInAs: 'Signed in as {user}',
    'signin.title': 'Sign in',
    'signin.user': 'User name',
    'signin.password': 'Password',
    'signin.scope': 'Scope',
    'signin.code': 'Verification code',
    'signin.codeLabel': 'Type the characters in the picture',
    'signin.codeImage': 'Verification code picture',
    'signin.newCode': 'New code',
    'signin.submit': 'Sign in',
    'signin.missing': 'Enter the user name, the password and, for this scope, the verification code.',
    'signin.wait': 'Too many failed sign-ins. You can try again in {seconds} s.',
    'signin.waitOver': 'You can try again now.',
    'signin.expired': 'Your session has expired. Sign in again to go on.',
    'signin.signedOut': 'You have signed out.',
    'signin.codeFailed': 'The verification code could not be fetched.',
    'signin.codeExpired': 'The verification code had expired. Type the characters of the new picture.',
    'signin.codeRenewed': 'The previous picture expired, so here is a new one.',
    'signin.returnTo': 'Signing in takes you back to {page}.',
    'scope.0': 'Administrator',
    'scope.1': 'Auditor',
    'scope.4': 'API client',
    any: 'Any',
    pageSize: 'Rows per page',
    prev: 'Previous',
    next: 'Next',
    close: 'Close',
    reload: 'Reload',
    code: 'Code',
    range: '{from}–{to} of {total}',
    rangeEmpty: 'No rows',
    loading: 'Loading…',
    'tasks.title': 'Tasks',
    'tasks.id': 'ID',
    'tasks.name': 'Name',
    'tasks.type': 'Type',
    'tasks.status': 'Status',
    'tasks.progress': 'Progress',
    'tasks.started': 'Started',
    'tasks.ended': 'Ended',
    'tasks.resource': 'Resource',
    'tasks.sort': 'Sort by',
    'tasks.auto': 'Update automatically',
    'tasks.live': 'Live: progress and states update as they change.',
    'tasks.polling': 'Live updates are not available; the list refreshes every 10 s.',
    'tasks.open': 'Open task {name}',
    'tasks.progressOf': 'Progress of {name}',
    'tasks.detail': 'Progress details',
    'tasks.detailLanguage': 'Details in',
    'tasks.errorInfo': 'Error',
    'tasks.noDetail': 'No progress entries.',
    'sort.newest': 'Newest first',
    'sort.oldest': 'Oldest first',
    'sort.name': 'Name',
    'sort.progress': 'Progress',
    'alarms.title': 'Alarms',
    'alarms.id': 'ID',
    'alarms.severity': 'Severity',
    'alarms.name': 'Alarm',
    'alarms.source': 'Source',
    'alarms.raised': 'Raised',
    'alarms.cleared': 'Cleared',
    'alarms.detail': 'Detail',
    'alarms.from': 'Raised from',
    'alarms.to': 'Raised until',
    'alarms.total': 'Alarms in total: ',
    'alarms.notCleared': 'Not cleared',
    'alarms.timeFormat': 'MM/DD/YYYY hh:mm',
    'alarms.badTime': 'Write the time as {format}, e.g. {example}.',
    'certs.title': 'Certificates and CRLs',
    'certs.intro': 'Files of at most 1 MiB (1048576 bytes). A CA certificate as PEM, DER, CRT or CER; a CRL as PEM or CRL.',
    'certs.caTitle': 'Import a CA certificate',
    'certs.crlTitle': 'Import a CRL',
    'certs.target': 'Trusted by',
    'certs.targetGateway': 'Backup system',
    'certs.targetHypervisor': 'Virtualization platforms',
    'certs.caFile': 'CA certificate file',
    'certs.crlFile': 'CRL file',
    'certs.choose': 'Choose file…',
    'certs.noneChosen': 'No file chosen',
    'certs.uploadCa': 'Upload certificate',
    'certs.uploadCrl': 'Upload CRL',
    'certs.caProgress': 'Certificate upload',
    'certs.crlProgress': 'CRL upload',
    'certs.noFile': 'Choose a file first.',
    'certs.empty': 'The file is empty (0 bytes). It was not sent.',
    'certs.tooLarge': 'The file has {size} bytes, more than 1048576 (1 MiB). It was not sent.',
    'certs.uploading': 'Sending… {percent} %',
    'certs.imported': 'Imported.',
    'certs.refused': 'The file was not imported.',
    'storage.title': 'Database-backup storage',
    'storage.name': 'Name',
    'storage.type': 'Storage type',
    'storage.path': 'Path',
    'storage.capacity': 'Capacity',
    'storage.used': 'Used',
    'storage.meter': 'Share of the capacity used',
    'storage.retention': 'Retention',
    'storage.days': '{days} days',
    'storage.result': 'Last check',
    'storage.ok': 'No problem reported',
    'error.network': 'The gateway cannot be reached.',
  },
  zh: {
    brand: 'NOX 控制台',
    skip: '跳到正文',
    'nav.tasks': '任务',
    'nav.alarms': '告警',
    'nav.certificates': '证书',
    'nav.storage': '存储',
    signOut: '退出',
    signedInAs: '当前用户：{user}',
    'signin.title': '登录',
    'signin.user': '用户名',
    'signin.password': '密码',
    'signin.scope': '登录类型',
    'signin.code': '验证码',
    'signin.codeLabel': '请输入图中的字符',
    'signin.codeImage': '验证码图片',
    'signin.newCode': '换一张',
    'signin.submit': '登录',
    'signin.missing': '请输入用户名、密码以及（此登录类型需要的）验证码。',
    'signin.wait': '登录失败次数过多，请在 {seconds} 秒后重试。',
    'signin.waitOver': '现在可以重试。',
    'signin.expired': '会话已过期，请重新登录。',
    'signin.signedOut': '您已退出。',
    'signin.codeFailed': '无法获取验证码。',
    'signin.codeExpired': '验证码已过期，请输入新图片中的字符。',
    'signin.codeRenewed': '上一张图片已过期，已换成新图片。',
    'signin.returnTo': '登录后将回到“{page}”页面。',
    'scope.0': '管理员',
    'scope.1': '审计员',
    'scope.4': 'API 客户端',
    any: '全部',
    pageSize: '每页行数',
    prev: '上一页',
    next: '下一页',
    close: '关闭',
    reload: '刷新',
    code: '错误码',
    range: '第 {from}–{to} 条，共 {total} 条',
    rangeEmpty: '没有数据',
    loading: '正在加载…',
    'tasks.title': '任务',
    'tasks.id': '编号',
    'tasks.name': '名称',
    'tasks.type': '类型',
    'tasks.status': '状态',
    'tasks.progress': '进度',
    'tasks.started': '开始时间',
    'tasks.ended': '结束时间',
    'tasks.resource': '资源',
    'tasks.sort': '排序',
    'tasks.auto': '自动更新',
    'tasks.live': '实时：进度和状态随变化更新。',
    'tasks.polling': '实时更新不可用，列表每 10 秒刷新一次。',
    'tasks.open': '打开任务 {name}',
    'tasks.progressOf': '{name} 的进度',
    'tasks.detail': '进度详情',
    'tasks.detailLanguage': '详情语言',
    'tasks.errorInfo': '错误',
    'tasks.noDetail': '没有进度记录。',
    'sort.newest': '最新在前',
    'sort.oldest': '最早在前',
    'sort.name': '名称',
    'sort.progress': '进度',
    'alarms.title': '告警',
    'alarms.id': '编号',
    'alarms.severity': '级别',
    'alarms.name': '告警',
    'alarms.source': '来源',
    'alarms.raised': '产生时间',
    'alarms.cleared': '清除时间',
    'alarms.detail': '详情',
    'alarms.from': '产生时间起',
    'alarms.to': '产生时间止',
    'alarms.total': '告警总数：',
    'alarms.notCleared': '未清除',
    'alarms.timeFormat': 'YYYY-MM-DD hh:mm',
    'alarms.badTime': '请按 {format} 的格式填写时间，例如 {example}。',
    'certs.title': '证书与吊销列表',
    'certs.intro': '文件最大 1 MiB（1048576 字节）。CA 证书可为 PEM、DER、CRT 或 CER 格式；吊销列表可为 PEM 或 CRL 格式。',
    'certs.caTitle': '导入 CA 证书',
    'certs.crlTitle': '导入吊销列表（CRL）',
    'certs.target': '信任方',
    'certs.targetGateway': '备份系统',
    'certs.targetHypervisor': '虚拟化平台',
    'certs.caFile': 'CA 证书文件',
    'certs.crlFile': '吊销列表文件',
    'certs.choose': '选择文件…',
    'certs.noneChosen': '未选择文件',
    'certs.uploadCa': '上传证书',
    'certs.uploadCrl': '上传吊销列表',
    'certs.caProgress': '证书上传进度',
    'certs.crlProgress': '吊销列表上传进度',
    'certs.noFile': '请先选择文件。',
    'certs.empty': '文件为空（0 字节），未上传。',
    'certs.tooLarge': '文件大小为 {size} 字节，超过 1048576 字节（1 MiB），未上传。',
    'certs.uploading': '正在上传… {percent} %',
    'certs.imported': '导入成功。',
    'certs.refused': '文件未导入。',
    'storage.title': '数据库备份存储',
    'storage.name': '名称',
    'storage.type': '存储类型',
    'storage.path': '路径',
    'storage.capacity': '容量',
    'storage.used': '已用',
    'storage.meter': '已用容量占比',
    'storage.retention': '保留期',
    'storage.days': '{days} 天',
    'storage.result': '最近检查',
    'storage.ok': '未发现问题',
    'error.network': '无法连接网关。',
  },
};

// The labels of conf/enum_en.xml and conf/enum_zh.xml that the pages show.
const ENUMS = {
  en: {
    task_status: {1: 'Queued', 2: 'Running', 3: 'Succeeded', 4: 'Partially succeeded',
      5: 'Failed', 6: 'Cancelled', 7: 'Paused', 8: 'Timed out'},
    task_type: {1: 'Backup', 2: 'Restore', 3: 'Copy', 4: 'Database backup',
      5: 'Database restore', 6: 'Verification'},
    storage_type: {1: 'Local disk', 2: 'NAS (NFS)', 3: 'NAS (CIFS)', 4: 'Object storage',
      5: 'Tape library', 6: 'Deduplication storage'},
    alarm_severity: {1: 'Critical', 2: 'Major', 3: 'Minor', 4: 'Warning'},
  },
  zh: {
    task_status: {1: '排队中', 2: '运行中', 3: '成功', 4: '部分成功', 5: '失败', 6: '已取消',
      7: '已暂停', 8: '超时'},
    task_type: {1: '备份', 2: '恢复', 3: '复制', 4: '数据库备份', 5: '数据库恢复', 6: '校验'},
    storage_type: {1: '本地磁盘', 2: 'NAS（NFS）', 3: 'NAS（CIFS）', 4: '对象存储', 5: '磁带库',
      6: '重复数据删除存储'},
    alarm_severity: {1: '紧急', 2: '重要', 3: '次要', 4: '提示'},
  },
};

// Chinese texts for the gateway's error codes (its descriptions are
// English); the code is always shown beside them.
const ERRORS_ZH = {
  0x03000003: '参数无效。',
  0x03000004: '对象不存在。',
  0x03000010: '用户名或密码错误。',
  0x03000011: '需要有效的会话，请先登录。',
  0x03000012: '该用户不能以此登录类型登录。',
  0x03000013: '登录失败次数过多，请稍后重试。',
  0x03000014: '验证码缺失、错误或已使用。',
  0x03000016: '用户名、密码或其他登录字段含有控制字符或不是有效的 UTF-8。',
  0x03000101: '后端不可用。',
  0x03000102: '后端未及时响应。',
  0x03000103: '后端出错。',
  0x03000203: '请求体过大。',
  0x03000205: '使用会话 Cookie 修改数据的请求必须带有 X-Requested-With: nox-console 头。',
  0x60E01D01: '证书既不是 PEM 也不是 DER 格式。',
  0x60E01D02: '证书不在有效期内。',
  0x60E01D03: '证书不是 CA 证书。',
  0x60E01D04: '证书的密钥强度不足。',
  0x60E01D0A: '证书不安全。',
  0x60E01D11: '吊销列表既不是 PEM 也不是 DER 格式。',
  0x60E01D12: '吊销列表的签发者不是已导入的 CA。',
  0x60E01D13: '吊销列表的签名无法验证。',
  0x60E01D14: '吊销列表的下次更新时间已过。',
  2000000001: '文件大于 1048576 字节。',
  1000005: '无法写入文件。',
};

// Where the chosen language is kept across reloads.
const LANGUAGE_KEY = 'nox.console.language';

// The kept choice, else the browser's language. Storage may be refused
// (a private window, a policy): then the choice lasts as long as the page.
function initialLanguage() {
  let kept = null;
  try {
    kept = window.localStorage.getItem(LANGUAGE_KEY);
  } catch (e) {
    kept = null;
  }
  if (kept === 'en' || kept === 'zh') return kept;
  return (navigator.language || 'en').toLowerCase().startsWith('zh') ? 'zh' : 'en';
}

let language = initialLanguage();

export function currentLanguage() {
  return language;
}

// Makes `lang` the interface language; `keep` also remembers it for the
// next visit.
export function setLanguage(lang, keep = false) {
  language = lang === 'zh' ? 'zh' : 'en';
  document.documentElement.lang = language === 'zh' ? 'zh-CN' : 'en';
  if (!keep) return;
  try {
    window.localStorage.setItem(LANGUAGE_KEY, language);
  } catch (e) {
    // Not kept: the choice still holds for this page.
  }
}

// The text of `key` in the current language with {name} filled from `params`.
export function t(key, params = {}) {
  const text = TEXTS[language][key] ?? TEXTS.en[key] ?? key;
  return text.replace(/\{(\w+)\}/g, (whole, name) => (name in params ? String(params[name]) : whole));
}

export function enumLabel(type, value) {
  return ENUMS[language][type]?.[value] ?? String(value);
}

export function enumValues(type) {
  return Object.keys(ENUMS.en[type] ?? {});
}

// The readable text of an API failure: the gateway's description, or in
// Chinese the console's own text for a code it knows.
export function errorText(error) {
  if (language === 'zh' && ERRORS_ZH[error.code]) return ERRORS_ZH[error.code];
  return error.description;
}

// "1625300234 (0x60E01D0A)".
export function codeText(code) {
  const hex = Number(code).toString(16).toUpperCase().padStart(8, '0');
  return `${code} (0x${hex})`;
}

const pad = (number) => String(number).padStart(2, '0');

// The date of `date` (local time) in the language's one format, the one the
// task details use: "11/14/2023" in English, "2023-11-14" in Chinese.
function formatDate(date) {
  const [year, month, day] = [date.getFullYear(), pad(date.getMonth() + 1), pad(date.getDate())];
  return language === 'zh' ? `${year}-${month}-${day}` : `${month}/${day}/${year}`;
}

// The offset of local time from UTC at `date`: "UTC+08:00", "UTC-03:30".
export function zoneText(date = new Date()) {
  const minutes = -date.getTimezoneOffset();
  const sign = minutes < 0 ? '-' : '+';
  const whole = Math.abs(minutes);
  return `UTC${sign}${pad(Math.floor(whole / 60))}:${pad(whole % 60)}`;
}

// Seconds since the epoch as local date and time with the offset from UTC,
// in the format of the task details; 0 as "–".
//   English: "11/14/2023 22:13:20 UTC+08:00"; Chinese: "2023-11-14 22:13:20 UTC+08:00"
export function formatTime(seconds) {
  if (!seconds) return '–';
  const date = new Date(seconds * 1000);
  const time = `${pad(date.getHours())}:${pad(date.getMinutes())}:${pad(date.getSeconds())}`;
  return `${formatDate(date)} ${time} ${zoneText(date)}`;
}

// A time typed in the language's format without seconds ("11/14/2023 22:13"
// or "2023-11-14 22:13"; the time may be left out: midnight) as local time,
// in seconds since the epoch; "" for an empty text, null for one that is not
// a time.
export function parseTime(text) {
  const value = String(text ?? '').trim();
  if (!value) return '';
  const pattern = language === 'zh' ? /^(\d{4})-(\d{1,2})-(\d{1,2})(?:\s+(\d{1,2}):(\d{2}))?$/
    : /^(\d{1,2})\/(\d{1,2})\/(\d{4})(?:\s+(\d{1,2}):(\d{2}))?$/;
  const match = pattern.exec(value);
  if (!match) return null;
  const [year, month, day] = language === 'zh' ? [match[1], match[2], match[3]]
    : [match[3], match[1], match[2]];
  const date = new Date(Number(year), Number(month) - 1, Number(day),
    Number(match[4] ?? 0), Number(match[5] ?? 0));
  if (date.getMonth() !== Number(month) - 1 || date.getDate() !== Number(day) ||
      Number(match[4] ?? 0) > 23 || Number(match[5] ?? 0) > 59) {
    return null;
  }
  return Math.floor(date.getTime() / 1000);
}

// Seconds since the epoch as the text parseTime reads back: "11/14/2023 22:13".
export function formatTypedTime(seconds) {
  const date = new Date(seconds * 1000);
  return `${formatDate(date)} ${pad(date.getHours())}:${pad(date.getMinutes())}`;
}

// 1649267441664 -> "1.50 TiB".
export function formatBytes(bytes) {
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB'];
  let value = Number(bytes);
  let unit = 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    unit += 1;
  }
  return unit === 0 ? `${value} B` : `${value.toFixed(2)} ${units[unit]}`;
}

// Writes the current language's texts into every element marked with
// data-i18n, and the enumeration options of every select with data-enum.
export function translatePage(root = document) {
  for (const element of root.querySelectorAll('[data-i18n]')) {
    element.textContent = t(element.dataset.i18n);
  }
  for (const element of root.querySelectorAll('[data-i18n-placeholder]')) {
    element.placeholder = t(element.dataset.i18nPlaceholder);
  }
  for (const element of root.querySelectorAll('[data-i18n-label]')) {
    element.setAttribute('aria-label', t(element.dataset.i18nLabel));
  }
  for (const select of root.querySelectorAll('select[data-enum]')) {
    const chosen = select.value;
    select.replaceChildren();
    if (select.dataset.any) select.append(new Option(t('any'), ''));
    for (const value of enumValues(select.dataset.enum)) {
      select.append(new Option(enumLabel(select.dataset.enum, value), value));
    }
    select.value = chosen;
  }
  document.title = t('brand');
}
