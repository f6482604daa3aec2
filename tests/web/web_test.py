"""The settings page end to end: lighttpd over HTTPS, the CGI programs, cgievents, cgiconn and
coresim (tools/web/serve), driven through HTTPS and a headless Chromium, with the audit trail
read from a syslog socket of the test's own. Runs inside tools/sandbox as root:
web_test.py BIN_DIR PAGE_DIR OUT_DIR"""
import base64, html.parser, http.client, http.server, json, os, pwd, re, signal, socket, ssl, subprocess, sys
import tempfile, threading, time, unittest, urllib.parse
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BIN, PAGE, OUT = sys.argv[1:4]
ACCOUNTS = '/run/tx416-web/etc/accounts'
RECORD = 256
PADDING = 'x' * 200  # fills a stalled connection's buffers sooner

def until(check, seconds):
    deadline = time.monotonic() + seconds
    while not check():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)
    return True

def free_port():
    with socket.socket() as s:
        s.bind(('127.0.0.1', 0))
        return s.getsockname()[1]

def as_user(user):
    entry = pwd.getpwnam(user)
    return ['setpriv', f'--reuid={entry.pw_uid}', f'--regid={entry.pw_gid}', '--init-groups', '--']

def basic(user):
    return 'Basic ' + base64.b64encode(f'{user}:{PASSWORDS[user]}'.encode()).decode()

def request(method, path, body=None, user='admin', headers=(), source=None):
    """One HTTPS request (from the address source): (status, headers, body as JSON where it is JSON)."""
    connection = http.client.HTTPSConnection('127.0.0.1', PORT, context=TLS, timeout=10,
                                             source_address=(source, 0) if source else None)
    head = {'Host': f'127.0.0.1:{PORT}'}
    if body is not None:
        head['Content-Type'] = 'application/x-www-form-urlencoded'
    if user:
        head['Authorization'] = basic(user)
    head.update(headers)
    connection.request(method, path, body, head)
    response = connection.getresponse()
    data = response.read()
    connection.close()
    if response.getheader('Content-Type', '').startswith('application/json'):
        data = json.loads(data)
    return response.status, response.headers, data

def config(form, user='admin', headers=()):
    return request('POST', '/cgi-bin/config', form, user, headers)

def file_form(action, text, name='upload.conf'):
    return f'action={action}&name={name}&file=' + urllib.parse.quote(text)

def refused_unread(path, length):
    """A body over the limit is refused from its length, before any of it is kept."""
    big = http.client.HTTPSConnection('127.0.0.1', PORT, context=TLS, timeout=10)
    big.putrequest('POST', path)
    for name, value in (('Content-Length', length), ('Authorization', basic('admin')),
                        ('Content-Type', 'application/x-www-form-urlencoded')):
        big.putheader(name, value)
    big.endheaders(b'cmd=' + b'a' * 1000)
    return big.getresponse().status == 413 and os.listdir('/run/tx416-web/upload') == []

def command(line, user='admin', method='POST'):
    form = 'cmd=' + line.replace(' ', '+')
    if method == 'GET':
        return request('GET', '/cgi-bin/command?' + form, user=user)[::2]
    return request('POST', '/cgi-bin/command', form, user=user)[::2]

AUDIT = []

def read_syslog():
    while True:
        AUDIT.append(SYSLOG.recv(4096).decode())

def audit_lines():
    time.sleep(0.1)
    return list(AUDIT)

def queues():
    rows = subprocess.run(['ipcs', '-q'], capture_output=True, text=True).stdout.splitlines()
    return [int(r.split()[-1]) for r in rows if r.startswith('0x')]

def queued_messages():
    return sum(queues())

def streams():
    return len(os.listdir('/run/tx416/streams'))

def start_cgi(form):
    env = {'REQUEST_METHOD': 'GET', 'QUERY_STRING': form, 'PLATFORM_CMDLINE': '/tmp/cmdline',
           'HTTP_HOST': 'localhost', 'HTTP_AUTHORIZATION': basic('admin'), 'TX_WEB_ACCOUNTS': ACCOUNTS,
           'TX_WEB_HOSTS': 'localhost', 'TX_WEB_SYSLOG': '/tmp/syslog'}
    return subprocess.Popen(as_user(WEB_USER) + [f'{BIN}/command'], env=env, stdout=subprocess.PIPE)

class Stream:
    """An event stream read (or, stalled, never read) over its own TLS connection."""
    def __init__(self, receive_buffer=None):
        raw = socket.socket()
        if receive_buffer:
            raw.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        raw.connect(('127.0.0.1', PORT))
        self.sock = TLS.wrap_socket(raw, server_hostname='127.0.0.1')
        # HTTP/1.0: the events come unframed, up to the end of the connection.
        self.sock.sendall(f'GET /cgi-bin/events HTTP/1.0\r\nHost: 127.0.0.1:{PORT}\r\n'
                          f'Authorization: {basic("viewer")}\r\n\r\n'.encode())
        self.rest, self.seen = b'', []

    def events(self, count, seconds=10):
        """The data of the events so far, once there are count of them (or seconds have passed)."""
        deadline = time.monotonic() + seconds
        while len(self.seen) < count and time.monotonic() < deadline:
            self.sock.settimeout(max(0.01, deadline - time.monotonic()))
            try:
                *blocks, self.rest = (self.rest + self.sock.recv(65536)).split(b'\n\n')
            except socket.timeout:
                break
            self.seen += [block[6:] for block in blocks if block.startswith(b'data: ')]
        return self.seen

def notify(first, count):
    """Records as cgiconn writes them, straight into the fan-out's pipe."""
    with open('/tmp/CgiInterComm', 'wb', buffering=0) as pipe:
        for n in range(first, first + count):
            pipe.write(f'notify test.seq {n} {PADDING}'.encode().ljust(RECORD, b'\0'))

def setUpModule():
    global PORT, HTTP_PORT, TLS, PASSWORDS, SYSLOG, WEB_USER, server, state, victim
    PORT, HTTP_PORT = free_port(), free_port()
    WEB_USER = 'www-data'
    SYSLOG = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    SYSLOG.bind('/tmp/syslog')
    os.chmod('/tmp/syslog', 0o666)
    threading.Thread(target=read_syslog, daemon=True).start()
    state = tempfile.mkdtemp()
    # A local user plants a symlink where cgiconn (root) writes notifications.
    victim = os.path.join(state, 'victim')
    with open(victim, 'w') as f:
        f.write('victim\n')
    subprocess.run(as_user('nobody') + ['ln', '-s', victim, '/tmp/CgiInterComm'], check=True)
    server = subprocess.Popen([f'{ROOT}/tools/web/serve', BIN, PAGE, str(PORT), str(HTTP_PORT), state],
                              stdout=subprocess.PIPE, text=True,
                              env={**os.environ, 'TX_WEB_SYSLOG': '/tmp/syslog'})
    lines = [server.stdout.readline() for _ in range(3)]
    assert lines[0].startswith('serving https://'), 'the stack did not start'
    assert re.match(r'certificate SHA-256 fingerprint: ([0-9A-F]{2}:){31}[0-9A-F]{2}\n', lines[1])
    PASSWORDS = {'admin': re.fullmatch(r'admin password: (\w{16})\n', lines[2]).group(1)}
    TLS = ssl.create_default_context(cafile=f'{state}/tls/cert.pem')
    for user, role in (('operator', 'operator'), ('viewer', 'viewer')):
        PASSWORDS[user] = f'{user}-secret'
        subprocess.run([f'{BIN}/tx416-webuser', '--accounts', ACCOUNTS, 'add', user, role,
                        '--password-stdin'], input=PASSWORDS[user], text=True, check=True)
    # A change while the plant is there; then an administrator removes it.
    assert command('set speaker-volume 9')[0] == 200
    os.unlink('/tmp/CgiInterComm')
    assert until(lambda: os.path.exists('/tmp/CgiInterComm'), 3), 'cgievents did not make its pipe'

def tearDownModule():
    if cgiconn:
        cgiconn.terminate()
        cgiconn.wait()
    server.send_signal(signal.SIGTERM)
    server.communicate()

cgiconn = None  # the one a test started after it stopped the stack's own

class BrowserTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        global browser
        spki = subprocess.run(f'openssl x509 -in {state}/tls/cert.pem -pubkey -noout | openssl pkey -pubin '
                              '-outform der | openssl dgst -sha256 -binary | base64', shell=True,
                              capture_output=True, text=True, check=True).stdout.strip()
        options = webdriver.ChromeOptions()
        for flag in ('headless', 'no-sandbox', 'disable-gpu', 'disable-quic', 'no-first-run',
                     'disable-background-networking', 'disable-component-update', 'disable-sync',
                     'window-size=1280,1000', f'user-data-dir={tempfile.mkdtemp()}',
                     f'ignore-certificate-errors-spki-list={spki}'):
            options.add_argument('--' + flag)
        options.binary_location = '/usr/bin/chromium'
        browser = webdriver.Chrome(service=Service('/usr/bin/chromedriver'), options=options)
        cls.downloads = tempfile.mkdtemp()
        browser.execute_cdp_cmd('Browser.setDownloadBehavior', {'behavior': 'allow', 'downloadPath': cls.downloads})

    @classmethod
    def tearDownClass(cls):
        browser.quit()

    def tearDown(self):
        browser.get('about:blank')  # a page left open would stream and send commands

    def log_in(self, user):
        url = f'https://127.0.0.1:{PORT}/'
        browser.get(url)
        if browser.current_url != f'{url}cgi-bin/login':
            browser.find_element(By.ID, 'logout').click()
            WebDriverWait(browser, 10).until(lambda _: browser.current_url == f'{url}cgi-bin/login')
        browser.find_element(By.ID, 'user').send_keys(user)
        browser.find_element(By.ID, 'password').send_keys(PASSWORDS[user] + '\n')
        WebDriverWait(browser, 10).until(lambda _: browser.current_url == url)
        self.assertIn(f'{user} (', browser.find_element(By.ID, 'whoami').text)

    def value(self, name):
        return browser.find_element(By.ID, f'setting-{name}').find_element(By.CLASS_NAME, 'value').text

    def console(self, line):
        browser.execute_script("document.getElementById('console-out').textContent = ''")
        field = browser.find_element(By.ID, 'line')
        field.clear()
        field.send_keys(line + '\n')
        out = browser.find_element(By.ID, 'console-out')
        WebDriverWait(browser, 10).until(lambda _: out.text)
        return out.text

    def test_page_for_each_role_and_against_other_sites(self):
        self.log_in('admin')
        wait = WebDriverWait(browser, 10)
        wait.until(lambda _: self.value('speaker-volume') == '9')
        row = browser.find_element(By.ID, 'setting-speaker-volume')
        row.find_element(By.CSS_SELECTOR, 'input[name=value]').send_keys('12')
        row.find_element(By.TAG_NAME, 'button').click()
        wait.until(lambda _: row.find_element(By.CLASS_NAME, 'reply').text == 'val speaker-volume 12')
        self.assertEqual(self.console('get md5-password'), 'val md5-password 0')
        # Notifications arrive newest first: the page still ends at the device's value.
        calls = browser.find_element(By.CSS_SELECTOR, 'tr.call[data-line="1"] .value')
        wait.until(lambda _: calls.text == 'idle')
        self.assertEqual(self.console('dial 1 5551234'), 'dial 1 5551234')
        wait.until(lambda _: calls.text == 'connected')
        self.console('hangup 1')
        browser.execute_script("document.getElementById('topic-audio').scrollIntoView()")
        browser.save_screenshot(os.path.join(OUT, 'web-page.png'))

        # Another site's form post and image request, in the admin's browser, change nothing.
        attack = (f'<form method=post action="https://127.0.0.1:{PORT}/cgi-bin/command">'
                  '<input name=cmd value="set speaker-volume 3"></form>'
                  f'<img src="https://127.0.0.1:{PORT}/cgi-bin/command?cmd=set+speaker-volume+4">'
                  '<script>document.forms[0].submit()</script>').encode()
        class Attacker(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                self.send_response(200)
                self.send_header('Content-Type', 'text/html')
                self.end_headers()
                self.wfile.write(attack)
            def log_message(self, *args):
                pass
        other = http.server.HTTPServer(('127.0.0.1', 0), Attacker)
        threading.Thread(target=other.handle_request, daemon=True).start()
        browser.get(f'http://127.0.0.1:{other.server_port}/')
        other.server_close()
        wait.until(lambda _: browser.current_url.endswith('/cgi-bin/command'))
        self.assertIn(json.loads(browser.find_element(By.TAG_NAME, 'body').text)['error'],
                      ('log in first', 'request from another site (Origin http://127.0.0.1:%d)' % other.server_port))
        self.assertEqual(command('get speaker-volume', method='GET'),
                         (200, {'line': 'get speaker-volume', 'reply': 'val speaker-volume 12'}))

        self.log_in('operator')
        self.assertEqual(self.console('get md5-password'), 'command syntax error')
        self.assertFalse(browser.find_element(By.ID, 'admin-tools').is_displayed())
        self.log_in('viewer')
        self.assertFalse(browser.find_element(By.CSS_SELECTOR, '#setting-mute button').is_displayed())
        self.assertEqual(self.console('set mute 1'), 'the viewer account only reads (get)')

    def test_admin_downloads_and_uploads_the_configuration(self):
        self.log_in('admin')
        browser.find_element(By.ID, 'config-download').click()
        saved = os.path.join(self.downloads, 'tx416.conf')
        self.assertTrue(until(lambda: os.path.exists(saved), 10))
        with open(saved) as f:
            text = f.read()
        self.assertEqual(text.encode(), config('action=show')[2])
        changed = os.path.join(self.downloads, 'changed.conf')
        with open(changed, 'w') as f:
            f.write(text.replace('\nset bt-name "TX-416"\n', '\nset bt-name "Room 7"\n'))
        browser.find_element(By.ID, 'config-file').send_keys(changed)
        apply = browser.find_element(By.ID, 'config-apply')
        WebDriverWait(browser, 10).until(lambda _: apply.is_displayed())
        self.assertEqual(browser.find_element(By.ID, 'config-plan').text, 'bt-name TX-416 -> "Room 7"')
        self.assertEqual(self.value('bt-name'), 'TX-416')  # nothing is made before the confirmation
        apply.click()
        WebDriverWait(browser, 10).until(lambda _: self.value('bt-name') == 'Room 7')
        self.assertEqual(browser.find_element(By.ID, 'config-out').text, 'applied')

    def test_ten_tabs_follow_and_answer(self):
        self.log_in('operator')
        tabs = [browser.current_window_handle]
        for _ in range(9):
            browser.switch_to.new_window('tab')
            browser.get(f'https://127.0.0.1:{PORT}/')
            tabs.append(browser.current_window_handle)
        for volume in ('5', '6'):
            self.assertEqual(command(f'set ringer-volume {volume}')[0], 200)
            for tab in tabs:
                browser.switch_to.window(tab)
                WebDriverWait(browser, 10).until(lambda _: self.value('ringer-volume') == volume)
                if volume == '6':
                    self.assertEqual(browser.find_element(By.ID, 'live').text, 'live')
                    self.assertEqual(self.console('get ringer-volume'), 'val ringer-volume 6')
        for tab in tabs[1:]:
            browser.switch_to.window(tab)
            browser.close()
        browser.switch_to.window(tabs[0])

class HttpTest(unittest.TestCase):
    def test_each_setting_gets_its_own_input(self):
        rows = []
        class Page(html.parser.HTMLParser):
            option = False
            def handle_starttag(self, tag, attributes):
                a = dict(attributes)
                if tag == 'tr' and a.get('class') == 'setting':
                    rows.append([a['data-name']])
                elif rows and tag == 'select':
                    rows[-1].append('select')
                elif rows and tag == 'input':  # its hint: the row's own help line
                    own = a['title'] == a['placeholder'] and re.match(f'"set {rows[-1][0]}[ "]', a['title'])
                    rows[-1].append('text' if own else a['placeholder'])
                self.option = tag == 'option'
            def handle_data(self, data):
                if self.option:
                    rows[-1].append(data)
        with open(os.path.join(PAGE, 'index.html')) as page:
            Page().feed(page.read())
        with open(os.path.join(os.path.dirname(__file__), 'widgets.tsv')) as widgets:
            self.assertEqual(rows, [l.split() for l in widgets if not l.startswith('#')])

    def test_answers_of_each_program(self):
        here = os.path.dirname(__file__)
        with open(os.path.join(here, 'http_cases.tsv')) as cases:
            for line in (l.rstrip('\n') for l in cases if not l.startswith('#')):
                name, user, method, headers, form, status, answer = line.split('\t')
                method, _, path = method.partition(' ')
                form = re.sub(r'\{(\d+)a\}', lambda m: 'a' * int(m.group(1)), form)
                answer = re.sub(r'\{(\d+)a\}', lambda m: 'a' * int(m.group(1)), answer)
                if answer.startswith('@'):
                    with open(os.path.join(here, 'data', answer[1:])) as data:
                        answer = data.read()
                extra = dict(h.split(': ', 1) for h in headers.split(';') if h != '-')
                path = (path or '/cgi-bin/command') + (f'?{form}' if method != 'POST' and form != '-' else '')
                with self.subTest(name):
                    got = request(method, path, form if method == 'POST' else None,
                                  user if user != '-' else None, extra)
                    if answer.startswith('{'):
                        got = (got[0], got[2])
                        expected = json.loads(answer)
                    elif int(status) == 303:
                        got, expected = (got[0], got[1]['Location']), answer
                    else:
                        got, expected = (got[0], answer in got[2].decode()), True
                    self.assertEqual(got, (int(status), expected))
        self.assertTrue(any('"set systemname caf\u00e9" -> "val systemname caf\u00e9"' in l
                            and 'operator from 127.0.0.1' in l for l in audit_lines()))

    def test_logins_sessions_and_the_rest_of_the_site(self):
        status, headers, _ = request('GET', '/', user=None)
        self.assertEqual((status, headers['Location']), (303, '/cgi-bin/login'))
        redirect = http.client.HTTPConnection('127.0.0.1', HTTP_PORT)
        redirect.request('POST', '/cgi-bin/command', 'cmd=get+mute')
        self.assertEqual(redirect.getresponse().getheader('Location'),
                         f'https://127.0.0.1:{PORT}/cgi-bin/command')
        self.assertEqual(request('GET', '/index.html')[0], 403)
        self.assertEqual(command('help audio')[1]['reply'].split('\n')[0],
                         '"set mute <0-1>" - Configure mute state. 0 - unmuted, 1 - muted, default 0.')
        self.assertTrue(refused_unread('/cgi-bin/command', 5 << 20))

        form = f'user=operator&password={PASSWORDS["operator"]}'
        status, headers, _ = request('POST', '/cgi-bin/login', form, user=None)
        self.assertEqual((status, headers['Location']), (303, '/'))
        cookie = headers['Set-Cookie']
        self.assertRegex(cookie, r'^tx416_session=[0-9a-f]{64}; Path=/; Secure; HttpOnly; SameSite=Strict$')
        session = {'Cookie': cookie.split(';')[0]}
        page = request('GET', '/', user=None, headers=session)[2].decode()
        token = re.search(r'name="csrf-token" content="([0-9a-f]{64})"', page).group(1)
        set_mute = lambda extra: request('POST', '/cgi-bin/command', 'cmd=set+mute+1', None, extra)
        self.assertEqual(set_mute(session)[0], 403)
        self.assertEqual(set_mute({**session, 'X-CSRF-Token': token})[2],
                         {'line': 'set mute 1', 'reply': 'val mute 1'})
        self.assertTrue(any('operator from 127.0.0.1: "set mute 1" -> "val mute 1"' in l for l in audit_lines()))
        self.assertEqual(request('POST', '/cgi-bin/logout', f'csrf={token}', None, session)[0], 303)
        self.assertEqual(set_mute({**session, 'X-CSRF-Token': token})[0], 401)

        # A new password takes effect at once and ends the sessions of the old one.
        status, headers, _ = request('POST', '/cgi-bin/login', f'user=viewer&password={PASSWORDS["viewer"]}', None)
        session = {'Cookie': headers['Set-Cookie'].split(';')[0]}
        token = re.search(r'content="([0-9a-f]{64})"', request('GET', '/', None, None, session)[2].decode()).group(1)
        change = f'old={PASSWORDS["viewer"]}&new=another-secret&csrf={token}'
        self.assertEqual(request('POST', '/cgi-bin/password', change, None, session)[2],
                         {'reply': 'password changed: log in again'})
        self.assertEqual(request('GET', '/cgi-bin/command?cmd=get+mute', None, None, session)[0], 401)
        # The old password is now a failed login: logged, and the next try from this address waits.
        self.assertEqual(command('get mute', user='viewer')[0], 401)
        self.assertEqual(command('get mute')[0], 429)
        self.assertTrue(any('failed login as "viewer" from 127.0.0.1' in l for l in audit_lines()))
        # The slow-down is per address: from another one, the form tells a wrong password.
        status, _, page = request('POST', '/cgi-bin/login', 'user=nobody&password=x', None, source='127.0.0.2')
        self.assertEqual((status, 'Wrong name or password.' in page.decode()), (401, True))
        self.assertTrue(any('failed login as "nobody" from 127.0.0.2' in l for l in audit_lines()))
        PASSWORDS['viewer'] = 'another-secret'
        self.assertTrue(until(lambda: command('get mute', user='viewer')[0] == 200, 3))

    def test_streams_that_stall_or_close_take_nothing_from_the_others(self):
        until(lambda: streams() == 0, 5)  # the pages of other tests are gone
        # Readers opened before and after the others: the fan-out's order of streams spares neither.
        first, stalled, closing, last = Stream(), Stream(receive_buffer=1024), Stream(), Stream()
        for stream in (first, stalled, last):
            self.addCleanup(stream.sock.close)
        self.assertTrue(until(lambda: streams() == 4, 5))
        closing.sock.close()
        sent = 0
        # The stalled stream fills its pipe and is dropped; the readers get every record.
        while streams() > 2 and sent < 20000:
            notify(sent, 100)
            sent += 100
            self.assertEqual([len(r.events(sent)) for r in (first, last)], [sent, sent])
        self.assertEqual(streams(), 2)
        for reader in (first, last):
            self.assertEqual(reader.events(sent), [f'notify test.seq {n} {PADDING}'.encode() for n in range(sent)])

    def test_replies_left_behind_never_fill_the_connectors_queue(self):
        core = int(subprocess.run(['pidof', 'coresim'], capture_output=True).stdout)
        os.kill(core, signal.SIGSTOP)
        killed = start_cgi('cmd=get+mute')
        marker = f'/tmp/cgi_rx_{killed.pid}.txt'
        self.assertTrue(until(lambda: os.path.exists(marker), 2))
        killed.kill()
        killed.communicate()
        os.kill(core, signal.SIGCONT)
        self.assertTrue(until(lambda: queued_messages() == 1, 2))
        self.assertTrue(os.path.exists(marker))
        self.assertTrue(until(lambda: not os.path.exists(marker) and queued_messages() == 0, 11))

        os.kill(core, signal.SIGSTOP)
        try:
            burst = [start_cgi('cmd=get+mute') for _ in range(40)]
            self.assertTrue(until(lambda: sum(p.poll() is not None for p in burst) == 24, 5))
        finally:
            os.kill(core, signal.SIGCONT)
        statuses = sorted(p.communicate()[0].split(b' ')[1] for p in burst)
        self.assertEqual(statuses, [b'503'] * 24 + [b'504'] * 16)
        self.assertTrue(until(lambda: queued_messages() == 0, 2))
        self.assertEqual(command('get mute')[0], 200)

    def test_the_configuration_is_the_admins(self):
        for user in ('operator', 'viewer'):
            self.assertEqual(config('action=show', user)[::2], (403, {'error': "the configuration as a whole is the admin's"}))
        status, headers, text = request('GET', '/cgi-bin/config?action=show')
        self.assertEqual((status, headers['Content-Disposition']), (200, 'attachment; filename="tx416.conf"'))
        text = text.decode()
        self.assertIn('\n# left out, secrets (root sees them with --with-secrets): snmp-community md5-password ', text)
        self.assertNotIn('\nset password ', text)
        self.assertIn('\nset password ', config('action=show&secrets=1')[2].decode())
        self.assertEqual(request('GET', '/cgi-bin/config?' + file_form('apply', 'set mute 1'))[::2],
                         (405, {'error': 'a configuration file comes as a POST'}))
        self.assertEqual(config('action=show', headers={'Sec-Fetch-Site': 'same-origin'})[0], 403)

        changed = text.replace('\nset camera-zoom 100\n', '\nset camera-zoom 250\n').replace('\nset eq 0\n', '\nset eq 2\n')
        bad_line = len(changed.splitlines()) + 1
        self.assertEqual(config(file_form('apply', changed + 'set mute x\n', 'bad.conf'))[::2],
                         (400, {'error': 'nothing sent: 1 bad line',
                                'lines': [f'bad.conf:{bad_line}: command syntax error: set mute x']}))
        status, _, checked = config(file_form('check', changed))
        self.assertEqual((status, checked['changes'], checked['plan']), (200, 2, 'eq 0 -> 2\ncamera-zoom 100 -> 250\n'))
        self.assertEqual(config(file_form('apply', changed) + '&confirm=' + '0' * 64)[0], 409)
        self.assertEqual(config(file_form('apply', changed) + '&confirm=' + checked['confirm'])[::2],
                         (200, {'changes': 2, 'not_taken': 0, 'report': 'eq 0 -> 2\ncamera-zoom 100 -> 250\n'}))
        self.assertEqual(config('action=show')[2].decode(), changed)
        self.assertEqual(config(file_form('apply', changed))[2], {'changes': 0, 'not_taken': 0, 'report': ''})
        audit = audit_lines()
        line = changed.splitlines().index('set camera-zoom 250') + 1
        self.assertTrue(any(f'admin from 127.0.0.1: configuration line {line} "set camera-zoom 250" -> '
                            '"camera-zoom 100 -> 250"' in l for l in audit))
        self.assertTrue(any('admin from 127.0.0.1: read the configuration with secrets' in l for l in audit))
        self.assertTrue(refused_unread('/cgi-bin/config', (64 << 10) + 1))

    def test_without_cgiconn_the_programs_answer_503(self):
        global cgiconn
        self.assertEqual(len(queues()), 4)
        os.kill(int(subprocess.run(['pidof', 'cgiconn'], capture_output=True).stdout), signal.SIGTERM)
        self.assertTrue(until(lambda: len(queues()) == 2, 5))
        not_running = {'error': 'the CGI connector cgiconn is not running'}
        self.assertEqual(command('get mute'), (503, not_running))
        self.assertEqual(config('action=show')[::2], (503, not_running))
        cgiconn = subprocess.Popen([f'{BIN}/cgiconn'], stdout=subprocess.DEVNULL,
                                   env={**os.environ, 'PLATFORM_CMDLINE': '/tmp/cmdline'})
        self.assertTrue(until(lambda: command('get mute')[0] == 200, 5))

    def test_symlinks_planted_in_tmp_change_nothing(self):
        planted = '/run/tx416/planted'
        pid = int(subprocess.run(['sh', '-c', 'echo $$'], capture_output=True, text=True).stdout)
        names = [f'cgi_rx_{n}.txt' for n in range(pid, pid + 300)] + ['cgi_slots.lock', 'cgi_events.lock']
        plant = 'import os, sys\nfor n in sys.argv[2:]: os.symlink(sys.argv[1], "/tmp/" + n)'
        subprocess.run(as_user('nobody') + [sys.executable, '-c', plant, planted] + names, check=True)
        answers = []
        while len(answers) < 30 and (503, 'taken') not in answers:
            status, answer = command('set mute 0')
            answers.append((status, 'taken' if 'taken by another user' in answer.get('error', '') else ''))
        self.assertIn((503, 'taken'), answers)
        self.assertLessEqual({status for status, _ in answers}, {200, 503})
        self.assertFalse(os.path.lexists(planted))
        with open(victim) as f:
            self.assertEqual(f.read(), 'victim\n')
        for name in names:
            os.unlink(f'/tmp/{name}')

if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
